#include "service/Distribution.h"

#include "support/DiskFile.h"
#include "support/TextLines.h"

#include <algorithm>
#include <initializer_list>

namespace {
/// A release file holds a line or two; whatever is larger is not one.
constexpr std::size_t s_nMaxReleaseFile = 1U << 20;

struct STReleaseFile
{
    const wchar_t* pszPath;
    EDistri eDistri;
};

/// Files whose mere existence decides, in this order.
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

/// Family of the first word of the list, not of the text, that the text holds in any case of letters.
EDistri eFirstWordIn(std::string csText, std::initializer_list<STWord> tWords, EDistri eOtherwise)
{
    std::transform(csText.begin(), csText.end(), csText.begin(), cLower);
    const auto* const pFound = std::find_if(tWords.begin(), tWords.end(), [&](const STWord& st) {
        return csText.find(st.pszWord) != std::string::npos;
    });
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
    std::string csText;
    if (CDiskFile::bReadFile(L"/etc/redhat-release", &csText, s_nMaxReleaseFile)) {
        return eFamilyInRedHatRelease(std::move(csText));
    }
    if (CDiskFile::bReadFile(L"/etc/version", &csText, s_nMaxReleaseFile)) {
        if (const EDistri eDistri = eFamilyInVersion(std::move(csText)); eDistri != DISTRI_UNKNOWN) {
            return eDistri;
        }
    }
    return CDiskFile::bExists(L"/etc/init.d/function") ? DISTRI_REDHAT
                                                       : DISTRI_DEBIAN; // "function": its exact name
}
