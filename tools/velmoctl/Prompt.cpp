#include "velmoctl/Prompt.h"

#include "support/Conversion.h"
#include "support/Shell.h"
#include "support/SystemCall.h"
#include "velmoctl/Failure.h"
#include "velmoctl/Options.h"
#include "velmoctl/Replies.h"
#include "velmoctl/Terminal.h"
#include "velmoctl/Waiting.h"

#include <algorithm>
#include <array>
#include <bit>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <histedit.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr std::size_t s_nMaxLine = 65536; // bytes, off a terminal
constexpr int s_nHistory = 1000;          // lines

struct STEndTokens
{
    void operator()(TokenizerW* pcl) const noexcept { ::tok_wend(pcl); }
};
struct STEndEditor
{
    void operator()(EditLine* pcl) const noexcept { ::el_end(pcl); }
};
struct STEndHistory
{
    void operator()(History* pcl) const noexcept { ::history_end(pcl); }
};

/// Whether a folder is the user's own. With sudo the home may be another user's, whose links could lead
/// root's writes anywhere.
bool bOwnFolder(const std::filesystem::path& clFolder)
{
    STFileStatus st{};
    return ::stat(clFolder.c_str(), &st) == 0 && st.st_uid == ::geteuid();
}

/// Where the history lies: below XDG_STATE_HOME, or else below the home. Makes the folder when it is missing;
/// empty when there is no place for it.
std::string csHistoryFile()
{
    const char* const pszState = std::getenv("XDG_STATE_HOME");
    const char* const pszHome = std::getenv("HOME");
    const bool bState = pszState != nullptr && *pszState == '/';
    if (!bState && pszHome == nullptr) {
        return "";
    }

    std::error_code clError;
    const std::filesystem::path clBase = bState ? pszState : pszHome;
    if (bState) {
        std::filesystem::create_directories(clBase, clError);
    }

    if (!bOwnFolder(clBase)) {
        return "";
    }

    const std::filesystem::path clFolder = clBase / (bState ? "velmoctl" : ".local/state/velmoctl");
    std::filesystem::create_directories(clFolder, clError);
    return clError ? "" : (clFolder / "history").string();
}

/// The longest common start of some texts, cut between characters.
std::string csCommonStart(const std::vector<std::string>& tTexts)
{
    std::string csStart = tTexts.front();
    for (const std::string& cs : tTexts) {
        const auto itDiffers = std::ranges::mismatch(csStart, cs).in1;
        csStart.erase(itDiffers, csStart.end());
    }
    return csStart.substr(0, nCutUTF8(csStart, csStart.size()));
}

void ShowCandidates(const std::vector<std::string>& tCandidates)
{
    std::cout << "\n";
    for (const std::string& cs : tCandidates) {
        std::cout << csShown(cs) << "  ";
    }
    std::cout << "\n" << std::flush;
}
} // namespace

std::vector<std::string> tWordsOf(const std::string& csLine)
{
    const std::wstring csText = csFromUTF8(csArgument(csLine));
    const std::unique_ptr<TokenizerW, STEndTokens> pclTokens(::tok_winit(L" \t\r"));
    int nWords = 0;
    const wchar_t** ppszWords = nullptr; // the tokenizer's

    // The tokenizer would take a backslash at the end for a continued line; there is no other line here.
    const bool bOpen = csText.ends_with(L'\\') && !csText.ends_with(L"\\\\");
    if (bOpen || ::tok_wstr(pclTokens.get(), csText.c_str(), &nWords, &ppszWords) != 0) {
        throw CFailure(EExit::USAGE, "the line ends inside a quotation");
    }

    std::vector<std::string> tWords;
    tWords.reserve(static_cast<std::size_t>(nWords));
    for (int n = 0; n < nWords; ++n) {
        tWords.push_back(csToUTF8(ppszWords[n]));
    }

    return tWords;
}

/// The terminal with libedit on it. libedit is C: no function that it calls may throw.
class CPrompt::CEditor
{
public:
    CEditor(const char* pszPrompt, Completions fnComplete)
        : m_csPrompt(pszPrompt), m_fnComplete(std::move(fnComplete)), m_csHistoryFile(csHistoryFile()),
          m_pclHistory(::history_init()), m_pclEdit(::el_init("velmoctl", stdin, stdout, stderr))
    {
        HistEvent st{};
        ::history(m_pclHistory.get(), &st, H_SETSIZE, s_nHistory);
        ::history(m_pclHistory.get(), &st, H_SETUNIQUE, 1);
        if (!m_csHistoryFile.empty()) {
            ::history(m_pclHistory.get(), &st, H_LOAD, m_csHistoryFile.c_str());
        }

        // First the data, through which the functions that libedit calls find this object.
        EditLine* const pcl = m_pclEdit.get();
        ::el_set(pcl, EL_CLIENTDATA, this);
        ::el_set(pcl, EL_PROMPT, s_pszPrompt);
        ::el_set(pcl, EL_EDITOR, "emacs");
        ::el_set(pcl, EL_HIST, ::history, m_pclHistory.get());
        ::el_set(pcl, EL_GETCFN, s_nGetCharacter);

        // The wide form keeps the two texts; libedit's narrow one copies them and never frees the copies.
        ::el_wset(pcl, EL_ADDFN, L"velmo-complete", L"Complete the word", s_nComplete);

        // The keys that people know from bash, where libedit has others for them or none.
        ::el_set(pcl, EL_BIND, "^I", "velmo-complete", nullptr);
        ::el_set(pcl, EL_BIND, "^W", "ed-delete-prev-word", nullptr);
        ::el_set(pcl, EL_BIND, "^U", "vi-kill-line-prev", nullptr);
        ::el_set(pcl, EL_BIND, "^R", "em-inc-search-prev", nullptr);
        ::el_set(pcl, EL_BIND, "\033[3~", "ed-delete-next-char", nullptr);
    }

    /// See CPrompt::csRead.
    std::optional<std::string> csRead()
    {
        m_eEnd = EEnd::NONE;
        ::el_resize(m_pclEdit.get()); // the window may have changed while a command ran

        // libedit shows the prompt before it leaves line mode: a key typed at once would be the terminal's.
        ::el_set(m_pclEdit.get(), EL_PREP_TERM, 1);

        int nCount = 0;
        const wchar_t* const pszLine = ::el_wgets(m_pclEdit.get(), &nCount);
        if (m_eEnd == EEnd::SIGNAL) {
            throw CFailure(EExit::INTERRUPTED, "interrupted");
        }
        if (pszLine == nullptr || nCount <= 0) {
            std::cout << "\n" << std::flush;
            return m_eEnd == EEnd::GIVEN_UP ? std::optional<std::string>("") : std::nullopt;
        }

        std::string csLine = csToUTF8(std::wstring(pszLine, static_cast<std::size_t>(nCount)));
        csLine.erase(csLine.find_last_not_of("\r\n") + 1);
        _Remember(csLine);
        return csLine;
    }

private:
    /// Why a line was not finished.
    enum class EEnd
    {
        NONE,     ///< it was, or the input is at its end
        GIVEN_UP, ///< the user dropped the line with Ctrl-C
        SIGNAL,   ///< another signal ends the program
    };

    static CEditor* s_pcl(EditLine* pclEdit)
    {
        void* pData = nullptr;
        ::el_get(pclEdit, EL_CLIENTDATA, &pData);
        return static_cast<CEditor*>(pData);
    }
    static char* s_pszPrompt(EditLine* pclEdit) { return s_pcl(pclEdit)->m_csPrompt.data(); }
    static int s_nGetCharacter(EditLine* pclEdit, wchar_t* pc) { return s_pcl(pclEdit)->_nGetCharacter(pc); }
    static unsigned char s_nComplete(EditLine* pclEdit, int) { return s_pcl(pclEdit)->_nComplete(); }

    /// Adds a line to the history, and saves that at once: a signal may end the program.
    void _Remember(const std::string& csLine)
    {
        if (csLine.empty()) {
            return;
        }
        HistEvent st{};
        ::history(m_pclHistory.get(), &st, H_ENTER, csLine.c_str());
        if (!m_csHistoryFile.empty()) {
            ::history(m_pclHistory.get(), &st, H_SAVE, m_csHistoryFile.c_str());
        }
    }

    /// Reads one character of UTF-8 for libedit. Returns 1, 0 at the end of the input, -1 on a signal.
    int _nGetCharacter(wchar_t* pc)
    {
        try {
            std::string csBytes;
            do {
                // The bytes of a character come together. A start without the rest is not UTF-8: U+FFFD.
                constexpr Milliseconds clTogether(100);
                const CDeadline clDeadline = csBytes.empty() ? CDeadline::Never() : CDeadline(clTogether);
                if (!bWaitFor(STDIN_FILENO, POLLIN, clDeadline)) {
                    break;
                }

                char c = 0;
                if (::read(STDIN_FILENO, &c, 1) != 1) {
                    return 0;
                }
                csBytes += c;
            } while (static_cast<int>(csBytes.size()) <
                     std::countl_one(static_cast<unsigned char>(csBytes[0])));
            *pc = csFromUTF8(csBytes)[0];
            return 1;
        } catch (const CFailure&) {
            m_eEnd = CInterrupts::nTake() == SIGINT ? EEnd::GIVEN_UP : EEnd::SIGNAL;
            return -1;
        }
    }

    /// The completion key, for libedit: completes the word in front of the cursor.
    unsigned char _nComplete()
    {
        try {
            const LineInfo* const pst = ::el_line(m_pclEdit.get());
            return _nCompleteLine({pst->buffer, static_cast<std::size_t>(pst->cursor - pst->buffer)});
        } catch (const std::exception&) { // inside of a quotation, or interrupted
            return CC_ERROR;
        }
    }
    /// Completes the last word of a line as far as its candidates agree, or else shows them. Returns what
    /// libedit must do next.
    unsigned char _nCompleteLine(const std::string& csLine)
    {
        std::vector<std::string> tWords = tWordsOf(csLine);
        if (csLine.empty() || csLine.ends_with(" ")) {
            tWords.emplace_back();
        }

        // A word that was typed with quotation marks does not stand in the line as it is: leave it alone.
        const std::string csTyped = tWords.back();
        const std::vector<std::string> tFound = m_fnComplete(tWords);
        if (tFound.empty() || !csLine.ends_with(csTyped)) {
            return CC_ERROR;
        }

        // One candidate replaces the word, since it may need quotation marks. A part of several is only added
        // when it needs none: the marks would have to be closed by what is still to be typed.
        const std::string csStart = csCommonStart(tFound);
        if (tFound.size() == 1) {
            ::el_deletestr(m_pclEdit.get(), static_cast<int>(csFromUTF8(csTyped).size()));
            ::el_insertstr(m_pclEdit.get(), (csShellWord(csStart) + " ").c_str());
            return CC_REFRESH;
        }
        if (csStart.size() > csTyped.size() && csShellWord(csStart) == csStart) {
            ::el_insertstr(m_pclEdit.get(), csStart.substr(csTyped.size()).c_str());
            return CC_REFRESH;
        }

        ShowCandidates(tFound);
        return CC_REDISPLAY;
    }

    std::string m_csPrompt;
    Completions m_fnComplete;
    std::string m_csHistoryFile; ///< empty: the history ends with the program
    EEnd m_eEnd = EEnd::NONE;
    std::unique_ptr<History, STEndHistory> m_pclHistory; ///< before the editor, which uses it to its end
    std::unique_ptr<EditLine, STEndEditor> m_pclEdit;
};

CPrompt::CPrompt(const char* pszPrompt, Completions fnComplete)
{
    if (bTerminal(STDIN_FILENO) && bTerminal(STDOUT_FILENO)) {
        m_pclEditor = std::make_unique<CEditor>(pszPrompt, std::move(fnComplete));
    }
}

CPrompt::~CPrompt() = default;

std::optional<std::string> CPrompt::csRead()
{
    if (m_pclEditor != nullptr) {
        return m_pclEditor->csRead();
    }
    std::string csLine;
    return bReadLine(&csLine, s_nMaxLine) ? std::optional<std::string>(csLine) : std::nullopt;
}
