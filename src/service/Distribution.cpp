// Finds the family of a machine without systemd by its release files.

#include "service/Distribution.h"

#include "support/DiskFile.h"
#include "support/TextLines.h"

#include <algorithm>
#include <initializer_list>

namespace {
/// In bytes. A release file holds a line or two; a larger file is none.
constexpr std::size_t s_nMaxReleaseFile = 1U << 20;

struct STReleaseFile
{
    const wchar_t* pszPath;
    EDistri eDistri;
};

/// Files whose mere existence decides. The first one found counts, as some systems ship a relative's file,
/// too.
constexpr STReleaseFile s_tReleaseFiles[] = {
    {L"/etc/debian_version", DISTRI_DEBIAN},
    {L"/etc/mandrake-release", DISTRI_MANDRAKE},
    {L"/etc/mandriva-release", DISTRI_MANDRAKE},
    {L"/etc/SuSE-release", DISTRI_SUSE},
    {L"/sbin/SuSEconfig", DISTRI_SUSE},
    {L"/etc/gentoo-release", DISTRI_GENTOO},
    {L"/etc/fedora-release", DISTRI_FEDORA},
    {L"/etc/slackware-release", DISTRI_SLACKWARE},
    {L"/etc/slackware-version", DISTRI_SLACKWARE},
};

struct STWord
{
    const char* pszWord;
    EDistri eDistri;
};

/// Family of the first word of the list that the text holds anywhere; eOtherwise when it holds none. The
/// words are in lower case, the text in any. The order of the list decides, not the order in the text.
EDistri eFirstWordIn(std::string csText, std::initializer_list<STWord> tWords, EDistri eOtherwise)
{
    std::ranges::transform(csText, csText.begin(), cLower);
    const auto* const pFound = std::ranges::find_if(
        tWords, [&](const char* pszWord) { return csText.find(pszWord) != std::string::npos; },
        &STWord::pszWord);
    return pFound != tWords.end() ? pFound->eDistri : eOtherwise;
}
} // namespace

EDistri eFamilyInRedHatRelease(std::string csText)
{
    return eFirstWordIn(
        std::move(csText),
        {{"mandrake", DISTRI_MANDRAKE}, {"mandriva", DISTRI_MANDRAKE}, {"fedora", DISTRI_FEDORA}},
        DISTRI_REDHAT);
}

EDistri eFamilyInVersion(std::string csText)
{
    return eFirstWordIn(std::move(csText),
                        {{"mandrake", DISTRI_MANDRAKE},
                         {"mandriva", DISTRI_MANDRAKE},
                         {"fedora", DISTRI_FEDORA},
                         {"redhat", DISTRI_REDHAT},
                         {"debian", DISTRI_DEBIAN}},
                        DISTRI_UNKNOWN);
}

EDistri eFindDistribution()
{
    for (const STReleaseFile& st : s_tReleaseFiles) {
        if (CDiskFile::bExists(st.pszPath)) {
            return st.eDistri;
        }
    }

    // Relatives share the names of these files, so here the content decides.
    std::string csText;
    if (CDiskFile::bReadFile(L"/etc/redhat-release", &csText, s_nMaxReleaseFile)) {
        return eFamilyInRedHatRelease(std::move(csText));
    }

    if (CDiskFile::bReadFile(L"/etc/version", &csText, s_nMaxReleaseFile)) {
        if (const EDistri eDistri = eFamilyInVersion(std::move(csText)); eDistri != DISTRI_UNKNOWN) {
            return eDistri;
        }
    }

    // The file on such systems is called "functions", so this name hardly ever exists. Clients rely on the
    // family that they get this way.
    return CDiskFile::bExists(L"/etc/init.d/function") ? DISTRI_REDHAT : DISTRI_DEBIAN;
}
