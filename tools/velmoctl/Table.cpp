#include "velmoctl/Table.h"

#include <algorithm>
#include <utility>

CTable::CTable(std::vector<std::string> tHeader) : m_tHeader(std::move(tHeader))
{
    m_tWidths.reserve(m_tHeader.size());
    for (const std::string& cs : m_tHeader) {
        m_tWidths.push_back(nColumns(cs));
    }
}

std::string CTable::csHeader() const
{
    CRow tTop;
    tTop.reserve(m_tHeader.size());
    for (const std::string& cs : m_tHeader) {
        tTop.push_back({cs, EColour::BOLD});
    }
    return _csLine(tTop);
}

std::string CTable::csRows(const std::vector<CRow>& tRows)
{
    Fit(tRows);
    std::string cs;
    for (const CRow& tRow : tRows) {
        cs += _csLine(tRow);
    }
    return cs;
}

void CTable::Fit(const std::vector<CRow>& tRows)
{
    for (const CRow& tRow : tRows) {
        for (std::size_t n = 0; n < tRow.size(); ++n) {
            m_tWidths[n] = std::max(m_tWidths[n], nColumns(csShown(tRow[n].csText)));
        }
    }
}

std::string CTable::_csLine(const CRow& tRow) const
{
    constexpr std::size_t nGap = 2;
    std::string csLine;
    std::size_t nPadding = 0; // spaces not yet written: only in front of text, never at the end of a line
    for (std::size_t n = 0; n < tRow.size(); ++n) {
        const std::string csText = csShown(tRow[n].csText);
        const std::size_t nWidth = nColumns(csText);
        if (nWidth > 0) {
            csLine.append(nPadding, ' ').append(csColoured(csText, tRow[n].eColour));
            nPadding = 0;
        }
        nPadding += m_tWidths[n] - nWidth + nGap;
    }

    return csLine + "\n";
}

std::string csTable(const std::vector<std::string>& tHeader, const std::vector<CRow>& tRows)
{
    CTable clTable(tHeader);
    clTable.Fit(tRows);
    return clTable.csHeader() + clTable.csRows(tRows);
}
