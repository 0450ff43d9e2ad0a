#include "velmoctl/NewFile.h"

#include "support/Descripteur.h"
#include "support/SystemCall.h"
#include "velmoctl/Failure.h"
#include "velmoctl/Options.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void ReplaceFile(const std::string& csPath, const std::string& csText)
{
    // root's rename would put a file in the place of /dev/null or of a FIFO that somebody reads.
    STFileStatus stOld{};
    if (::stat(csPath.c_str(), &stOld) == 0 && !S_ISREG(stOld.st_mode)) {
        throw CFailure(EExit::REFUSED,
                       csArgument(csPath) + " could not be written: it is not a regular file");
    }

    // In the same folder, because a rename cannot cross file systems; under a name that does not end like a
    // metrics file's (".prom"), so that node_exporter's textfile collector does not read it half written.
    const std::size_t nName = csPath.rfind('/') + 1; // 0 without a folder: npos + 1 is 0
    std::string csNew = csPath.substr(0, nName) + "." + csPath.substr(nName) + ".XXXXXX";
    CDescripteur clFile(::mkostemp(csNew.data(), O_CLOEXEC)); // mode 0600; the collector is another user
    const bool bWritten = clFile.bOpen() && bWriteAll(clFile.nFd(), csText) &&
                          ::fchmod(clFile.nFd(), 0644) == 0 && ::fsync(clFile.nFd()) == 0 &&
                          ::rename(csNew.c_str(), csPath.c_str()) == 0;
    if (!bWritten) {
        const CFailure clFailure =
            clSystemFailure(EExit::REFUSED, csArgument(csPath) + " could not be written");
        if (clFile.bOpen()) {
            ::unlink(csNew.c_str());
        }
        throw clFailure;
    }
}
