#pragma once

/// Messages of the command-line modes for the person at the terminal: one UTF-8 line each on standard output.
/// The first argument is a message-box style, which a terminal has no use for.

void ShowError(int nStyle, const wchar_t* pszMessage);
/// The message as it stands.
void ShowErrorIDS(int nStyle, unsigned int nMessage);
/// The message with the service name as its insert.
void ShowErrorIDS_Service(int nStyle, unsigned int nMessage);
/// The message with the C library's text for the errno at the call as its insert.
void ShowErrorIDSError(int nStyle, unsigned int nMessage);
/// The message with that text, then the service name.
void ShowErrorIDSError_Service(int nStyle, unsigned int nMessage);
