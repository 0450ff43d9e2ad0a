#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The two records of the local pipe, byte for byte (little-endian, as are all machines that this product
/// runs on), and the functions that read and write them: bytes in, texts out, no I/O. A request comes from
/// another process: nothing in it is trusted to be terminated, well-formed or in range.

/// Form of a request. Every other number is an unknown form.
enum EPipeForm : std::int32_t
{
    PIPE_FORM_ANSI = 0,  ///< texts in Windows-1252, port as digits
    PIPE_FORM_UTF16 = 1, ///< texts in UTF-16
};

/// Content of a request of the single-byte form.
struct STSendAnsi
{
    std::array<char, 261> szName;
    std::array<char, 261> szPath;
    std::array<char, 262> szPort;
};
/// Content of a request of the UTF-16 form.
struct STSendUTF16
{
    std::uint16_t wPort;
    std::array<char16_t, 129> szName;
    std::array<char16_t, 262> szPath;
};
/// A request. It arrives in one piece if it was written by one call: the kernel never splits a write of at
/// most PIPE_BUF bytes (4096).
struct stSEND
{
    std::int32_t nReply;                     ///< number at the end of the name of the client's reply FIFO
    std::int32_t nForm;                      ///< EPipeForm
    std::array<unsigned char, 784> tContent; ///< STSendAnsi or STSendUTF16
};
/// A reply. The client reads the text up to its first NUL.
struct stRET
{
    std::array<char, 500> szText;
    char cEnd; ///< always 0, so that a text of full length is terminated too
};

// Clients are built on their own and know the records by these offsets only.
static_assert(sizeof(stSEND) == 792 && offsetof(stSEND, nForm) == 4 && offsetof(stSEND, tContent) == 8);
static_assert(sizeof(STSendAnsi) == 784 && sizeof(STSendUTF16) == 784);
static_assert(offsetof(stSEND, tContent) + offsetof(STSendAnsi, szPath) == 269);
static_assert(offsetof(stSEND, tContent) + offsetof(STSendAnsi, szPort) == 530);
static_assert(offsetof(stSEND, tContent) + offsetof(STSendUTF16, szName) == 10);
static_assert(offsetof(stSEND, tContent) + offsetof(STSendUTF16, szPath) == 268);
static_assert(sizeof(stRET) == 501 && offsetof(stRET, cEnd) == 500);

/// What a request asks for: the registration of a server.
struct STRegistration
{
    std::wstring csName;
    std::wstring csPath; ///< of the server's executable
    std::uint16_t wPort;
};

/// Each reads a request of one form. A text without NUL ends with its field. The port's digits are a decimal
/// number (leading whitespace and a sign accepted), of which the low 16 bits count.
STRegistration stReadAnsi(const stSEND& stSend);
STRegistration stReadUTF16(const stSEND& stSend);

/// Puts UTF-8 text into a reply and fills the rest with NULs. A text that is too long is cut between two
/// characters.
void WriteReply(std::string_view csText, stRET* pstReturn);
