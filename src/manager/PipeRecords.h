#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The two records of the local pipe as they lie in its bytes (little-endian, like every machine of this
/// product), and their readers and writer: bytes in, texts out, no I/O. A request comes from another process:
/// nothing in it is trusted to be terminated, well-formed or in range.

/// Form of a request; every other number is an unknown one.
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
/// A request. It is read from the FIFO in one piece, being smaller than what the system writes to a FIFO at
/// once.
struct stSEND
{
    std::int32_t nReply; ///< the number in the name of the client's reply FIFO
    std::int32_t nForm;  ///< EPipeForm
    std::array<unsigned char, 784> tContent;
};
/// A reply. The client reads the text up to its first NUL.
struct stRET
{
    std::array<char, 500> szText;
    char cEnd; ///< always 0, so that a text of full length ends too
};

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
/// Reads a request of one of the two forms. A text without NUL ends with its field; the port digits are read
/// as a decimal number (blanks and a sign accepted) of which the low 16 bits count.
STRegistration stReadAnsi(const stSEND& stSend);
STRegistration stReadUTF16(const stSEND& stSend);

/// Puts UTF-8 text into a reply, cut at a character's border when it is too long; all behind it becomes NUL.
void WriteReply(std::string_view csText, stRET* pstReturn);
