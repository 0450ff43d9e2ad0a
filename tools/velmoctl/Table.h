#pragma once

#include "velmoctl/Terminal.h"

#include <string>
#include <vector>

/// One cell of a table; the text is made harmless when it is written.
struct STCell
{
    std::string csText;
    EColour eColour = EColour::PLAIN;
};
using CRow = std::vector<STCell>;

/// A header and rows in columns two spaces apart, without trailing spaces. Columns only grow wider,
/// so that later rows stand in line with those already written.
class CTable
{
public:
    explicit CTable(std::vector<std::string> tHeader);

    /// The header's line, in the columns' present widths.
    std::string csHeader() const;
    /// The lines of some rows, each with as many cells as the header, in columns widened for them.
    std::string csRows(const std::vector<CRow>& tRows);
    /// Makes room for rows without writing them.
    void Fit(const std::vector<CRow>& tRows);

private:
    std::string _csLine(const CRow& tRow) const;

    std::vector<std::string> m_tHeader;
    std::vector<std::size_t> m_tWidths;
};

/// All of a table, header included.
std::string csTable(const std::vector<std::string>& tHeader, const std::vector<CRow>& tRows);
