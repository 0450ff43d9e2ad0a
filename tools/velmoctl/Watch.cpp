// Shows the list again and again in the same place of the terminal, until "q".

#include "velmoctl/Fleet.h"
#include "velmoctl/Screen.h"
#include "velmoctl/ServerList.h"

#include <cmath>
#include <iostream>

namespace {
/// Shows a page: the rows of the machines that have answered, then what went wrong. The columns begin anew
/// with each page, so that none stays as wide as a text that is gone.
void Show(const CServerList& clList, bool bHeader, const std::vector<const STHostAnswer*>& tAnswers,
          const std::vector<std::string>& tTrouble, CScreen* pclScreen)
{
    CTable clTable(clList.tHeader());
    const std::vector<CRow> tCells = clList.tCells(clList.tRows(tAnswers));
    clTable.Fit(tCells);
    std::string csRows = clTable.csRows(tCells);
    for (const std::string& cs : tTrouble) {
        csRows += csShown(cs) + "\n";
    }
    pclScreen->Show(bHeader ? clTable.csHeader() : "", csRows);
}

/// One look at the servers. On a terminal failures are part of the page, and the user who watches ends with
/// success; elsewhere they are reported on standard error and make the exit status.
EExit eLook(const STCall& stCall, const STQuestions& stQuestions, const CServerList& clList,
            CScreen* pclScreen)
{
    const CSelection clSelection(stCall.tArguments);
    const bool bHeader = !stCall.stOptions.bNoHeader;
    std::vector<const STHostAnswer*> tSeen;
    const CTakeAnswers fnTake = [&](const std::vector<const STHostAnswer*>& tReady) {
        tSeen.insert(tSeen.end(), tReady.begin(), tReady.end());

        // While a slow machine is waited for, the page shows the others. The last answers are shown below.
        if (pclScreen->bLive() && tSeen.size() < stQuestions.tHosts.size()) {
            Show(clList, bHeader, tSeen, {}, pclScreen);
        }
    };

    const auto tAnswers = tAskFleet(stQuestions, true, fnTake);
    const std::vector<std::string> tTrouble = tTroubles(tAnswers, clSelection);
    if (stCall.stOptions.bJson) {
        std::cout << csJsonLine(clList.clJson(tAnswers)) << std::flush;
    } else {
        Show(clList, bHeader, tPointers(tAnswers), pclScreen->bLive() ? tTrouble : std::vector<std::string>(),
             pclScreen);
    }

    if (!pclScreen->bLive()) {
        TellTroubles(tTrouble);
        return eWorstOf(tAnswers, clSelection);
    }

    return EExit::DONE;
}
} // namespace

EExit eWatch(const STCall& stCall)
{
    const STQuestions stQuestions = stStateQuestions(stCall);
    const CServerList clList(stCall.stOptions, stQuestions.tHosts.size() > 1);
    const Milliseconds clPause(std::lround(stCall.stOptions.dInterval * 1000));

    CInterrupts::Catch(); // so that Ctrl-C, too, gives the cursor back
    CScreen clScreen(!stCall.stOptions.bJson);
    EExit eResult = EExit::DONE;
    try {
        // Without --count nCount is 0, which nLook is not until it wraps around.
        for (unsigned int nLook = 1; std::cout.good(); ++nLook) {
            eResult = eLook(stCall, stQuestions, clList, &clScreen);
            if (nLook == stCall.stOptions.nCount || clScreen.bPauseEnds(clPause)) {
                break;
            }
        }
    } catch (const CFailure& clFailure) {
        if (CInterrupts::nTake() == 0) {
            throw;
        }
        return EExit::DONE; // Ctrl-C is the usual way to end a watch
    }

    return eResult;
}
