#pragma once

#include <string>
#include <string_view>

/// The name of one service in every form that the system has of it. No other place knows a substitution or an
/// escape.
///
/// A name is made from what a tool or a caller says, or from what the init system lists; both know which init
/// system that is (CServiceManager::bSystemd). The forms:
///  - text: as it was said or, decoded, as it is listed;
///  - registry: what the service is called there: the unit's name without ".service", or the script's name.
///  In
///    a unit's name a space is "_" and a tab "__"; in a script's name "/" and "." are "-" besides;
///  - asked: the unit's name as systemctl takes it, one word: the unit's file name without ".service". What a
///    unit's name cannot hold is "\xNN" in it.
/// Two names with one registry form are one service.
///
/// Plain values; nothing throws but std::bad_alloc.
class CServiceName
{
public:
    /// From a caller. A null pointer is no name at all.
    static CServiceName s_clSaid(const wchar_t* pszName);
    /// From the init system: a unit's name in a listing, ".service" not included, or a script's file name.
    static CServiceName s_clListed(std::string_view csListed);

    bool bNull() const { return m_bNull; }
    const std::wstring& csText() const { return m_csText; }
    std::wstring csRegistry() const;
    /// Empty for a name that no unit can have, or that systemctl would not read as one whole name: it holds a
    /// pattern character, a slash, a double quote or a control character, begins with "-", ends like a whole
    /// unit name (".service", ".timer"...), or is longer than a file name can be.
    const std::wstring& csAsked() const { return m_csAsked; }
    std::wstring csUnitFile() const { return m_csAsked + L".service"; }
    /// Also what a listing's prefix is compared with.
    std::wstring csScript() const;

    /// The name that a lookup under systemd is for: there, and nowhere else, ";" and "|" stand for spaces;
    /// clients rely on it. It names nothing when that makes it more than one word.
    CServiceName clLookedUp() const;
    /// The name that the registry gives the service: its text is the registry form.
    CServiceName clRegistered() const { return {csRegistry(), m_csAsked, true}; }
    /// The name as it was registered: the display name when it can be registered and its registry form is
    /// this one.
    std::wstring csRegisteredAs(const wchar_t* pszDisplayName) const;
    /// The name for people: the display name, whatever it says; the service's own when there is none, or when
    /// a control character in it could forge fields of a list.
    std::wstring csShownAs(const wchar_t* pszDisplayName) const;

    /// Whether a service can be installed under the name, started with it as an argument and found by it
    /// again.
    bool bInstallable() const;

    /// Whether a name that was said is the found service's own: its form, or just its text.
    bool bNames(const CServiceName& clFound) const
    {
        return *this == clFound || m_csText == clFound.m_csText;
    }

    bool operator==(const CServiceName& cl) const { return csRegistry() == cl.csRegistry(); }

private:
    CServiceName() = default;
    CServiceName(std::wstring csText, std::wstring csAsked, bool bListed)
        : m_csText(std::move(csText)), m_csAsked(std::move(csAsked)), m_bListed(bListed), m_bNull(false)
    {}

    std::wstring m_csText;
    std::wstring m_csAsked;
    bool m_bListed = false; ///< the text is the registry form
    bool m_bNull = true;
};
