#pragma once

#include "velmoctl/Fleet.h"
#include "velmoctl/Json.h"
#include "velmoctl/Table.h"

#include <string>
#include <vector>

/// The list of servers as the user wants it: which rows in which order, and which columns. Asks nobody.

/// One row: a server of a host.
struct STListed
{
    const STHostAnswer* pstHost;
    const STServerAnswer* pstServer;
};

/// A column of the list.
struct STColumn
{
    const char* pszName;   ///< as the user writes it
    const char* pszHeader; ///< as the table shows it
    std::string (*pfnText)(const STListed&);
};

class CServerList
{
public:
    /// Throws CFailure (USAGE) for an unknown column or state. With several hosts the usual columns begin
    /// with the host.
    CServerList(const STOptions& stOptions, bool bManyHosts);

    /// The rows of some answers: the servers in the states wanted, sorted as wanted, else in the answers'
    /// order. They point into the answers.
    std::vector<STListed> tRows(const std::vector<const STHostAnswer*>& tAnswers) const;
    /// Whether rows may be written before all are known.
    bool bAsTheyCome() const { return m_tSort.empty(); }

    /// The columns' headers, and the cells of each row: both as CTable takes them.
    std::vector<std::string> tHeader() const;
    std::vector<CRow> tCells(const std::vector<STListed>& tRows) const;
    /// All answers as one value: an object for each row, and for each machine that gave no answer.
    Json clJson(const std::vector<STHostAnswer>& tAnswers) const;

private:
    struct STKey
    {
        const STColumn* pstColumn;
        bool bReversed;
    };
    bool _bWanted(const STServerAnswer& st) const;

    bool m_bLong;
    std::vector<const STColumn*> m_tColumns;
    std::vector<STKey> m_tSort;
    std::vector<std::string> m_tStates; ///< none: all
};

/// Green for what runs, red for what does not or gave no answer, yellow for every other state.
EColour eStateColour(const std::string& csState);
/// The state as it is shown: "?" when there is none.
std::string csStateShown(const STServerAnswer& st);
/// Pointers to all answers, in their order: what CServerList and CTakeAnswers work with.
std::vector<const STHostAnswer*> tPointers(const std::vector<STHostAnswer>& tAnswers);
