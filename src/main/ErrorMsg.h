#pragma once

/// Messages of the command-line modes for the person at the terminal: one UTF-8 line each on standard output.
/// The first argument is the style of a message box, which a terminal ignores.
/// ShowErrorIDS_Service and ShowErrorIDSError are for the product's other programs; nothing here calls them.

void ShowError(int nStyle, const wchar_t* pszMessage);
/// The message unchanged.
void ShowErrorIDS(int nStyle, unsigned int nMessage);
/// The message with the service name as its insert.
void ShowErrorIDS_Service(int nStyle, unsigned int nMessage);
/// The message with its insert: the C library's text for the errno at the time of the call.
void ShowErrorIDSError(int nStyle, unsigned int nMessage);
/// The message with two inserts: that text, then the service name.
void ShowErrorIDSError_Service(int nStyle, unsigned int nMessage);
