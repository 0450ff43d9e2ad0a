#pragma once

#include "tools/Command.h"

#include <cstring>
#include <fnmatch.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

/// Whether a text is what a pattern says: in it "*" stands for anything, every other character for itself.
inline bool bReadsAs(const std::string& csPattern, const std::string& csText)
{
    std::string csEscaped;
    for (const char c : csPattern) {
        csEscaped += std::strchr("?[\\", c) != nullptr ? "\\" : "";
        csEscaped += c;
    }
    return ::fnmatch(csEscaped.c_str(), csText.c_str(), 0) == 0;
}

/// Plays a file. Its first line says what it shows. "[status] command" begins a step, for the shell; the
/// lines up to the next step are the command's whole output, "*" for anything. `csBefore` stands before each
/// command.
inline void PlayTranscript(const std::string& csFile, const std::string& csBefore)
{
    std::ifstream clFile(csFile);
    std::string csLine;
    std::getline(clFile, csLine);
    ASSERT_TRUE(csLine.starts_with("# ")) << csFile;
    for (std::getline(clFile, csLine); clFile;) {
        SCOPED_TRACE(csLine);
        const std::size_t nCommand = csLine.find(' ');
        const STCommandResult st = stRun(csBefore + csLine.substr(nCommand));
        EXPECT_EQ("[" + std::to_string(st.nStatus) + "]", csLine.substr(0, nCommand)) << st.csOutput;

        std::string csExpected;
        while (std::getline(clFile, csLine) && !csLine.starts_with('[')) {
            csExpected += csLine + "\n";
        }
        EXPECT_TRUE(bReadsAs(csExpected, st.csOutput)) << csExpected << "was expected, and this came:\n"
                                                       << st.csOutput;
    }
}
