// A tool's side of a conversation: the bytes arrive at a socket, in blocks that the first byte tells; the
// lines are read and split as the conversation's thread does it.

#include "manager/Dialog.h"
#include "support/Conversion.h"
#include "Target.h"

#include <cstdint>
#include <sys/socket.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    int tEnds[2];
    if (nBytes == 0 || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, tEnds) != 0) {
        return 0;
    }
    const CDescripteur clTool(tEnds[0]);
    CDialog clDialog{CDescripteur(tEnds[1])};
    const std::size_t nBlock = 1 + pBytes[0] % 64;
    for (std::size_t n = 1; n < nBytes; n += nBlock) { // each is one receive
        (void)::send(clTool.nFd(), pBytes + n, std::min(nBlock, nBytes - n), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    ::shutdown(clTool.nFd(), SHUT_WR);
    CTString csKeyword;
    while (clDialog.bGetCommand(&csKeyword)) {
        Require(csKeyword.find(L'\t') == std::wstring::npos);
        clDialog.ACK(ERREUR_COMMANDE_INCONNUE, csKeyword);
        for (int n = 0; n < 5; ++n) {
            CTString csField;
            clDialog.GetString(&csField);
            Require(csField.find(L'\t') == csField.npos && csField.find(L"\r\n") == csField.npos);
            (void)clDialog.dwGetUInt32();
        }
        clDialog.ClearCommand();
    }
    return 0;
}
