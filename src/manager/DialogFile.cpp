// The one operation of a conversation that receives a file.

#include "manager/Dialog.h"
#include "support/Conversion.h"
#include "support/ForOverwrite.h"
#include "support/SystemCall.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {
constexpr std::size_t s_nBlock = 65536; ///< bytes of one receive

/// Throws a CXError with errno, the operation and the file that it failed for.
[[noreturn]] void xThrow(const wchar_t* pszOperation, const std::string& csFile)
{
    CXError clError;
    std::ignore = bFail(&clError, pszOperation, csFromUTF8(csFile)); // always false
    throw CXError(clError);
}

/// A temporary file, deleted with the object unless it is kept.
class CTemporaryFile
{
public:
    CTemporaryFile() : m_csPath("/tmp/DXIXXXXXX"), m_clFile(::mkostemp(m_csPath.data(), O_CLOEXEC))
    {
        if (!m_clFile.bOpen()) {
            xThrow(L"mkostemp", m_csPath);
        }
    }
    ~CTemporaryFile()
    {
        if (!m_bKept) {
            ::unlink(m_csPath.c_str());
        }
    }
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    void xWrite(std::string_view csBytes)
    {
        if (!bWriteAll(m_clFile.nFd(), csBytes)) {
            xThrow(L"write", m_csPath);
        }
    }
    std::wstring csPath() const { return csFromUTF8(m_csPath); }
    void Keep() noexcept { m_bKept = true; }

private:
    std::string m_csPath;
    CDescripteur m_clFile;
    bool m_bKept = false;
};
} // namespace

void CDialog::xGetFile(const std::wstring& csName, unsigned int nSize, CInstallInfo* pclInfo)
{
    CTemporaryFile clFile;
    const auto pBlock = pMakeForOverwrite<char[]>(s_nBlock); // not on the stack: a thread has 64 KiB of it

    // The last receive may bring more than is missing; all of it is written.
    for (std::size_t nTotal = 0; nTotal < nSize;) {
        const ssize_t nReceived = nRetry([&] { return ::recv(m_clSocket.nFd(), pBlock.get(), s_nBlock, 0); });
        if (nReceived == 0) {
            errno = ECONNRESET; // the tool is gone: the file will never be whole
        }
        if (nReceived <= 0) {
            xThrow(L"recv", csToUTF8(csName));
        }

        clFile.xWrite({pBlock.get(), static_cast<std::size_t>(nReceived)});
        nTotal += static_cast<std::size_t>(nReceived);
    }

    // Both lists get the file, or neither does: all that may throw comes before Keep, and the second
    // push_back finds room and moves its text, so it cannot.
    std::wstring csFile = clFile.csPath();
    pclInfo->tTemporaryFiles.reserve(pclInfo->tTemporaryFiles.size() + 1);
    pclInfo->tNames.push_back(csName);
    pclInfo->tTemporaryFiles.push_back(std::move(csFile));
    clFile.Keep();
}
