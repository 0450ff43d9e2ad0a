#pragma once

#include <string>
#include <string_view>

/// The name of one service in each of its forms. No other place knows a substitution or an escape.
///
/// A name is made from a caller's text or from what the init system lists. CServiceManager::bSystemd says
/// which init system. The forms:
///  - text: what the caller said, or what is listed, decoded;
///  - registry: the unit's name without ".service", or the script's name. In both, a space becomes "_" and
///    a tab "__"; in a script's name, "/" and "." become "-", too;
///  - asked: the unit's file name without ".service", as one word for systemctl. A byte that a unit's name
///    cannot hold is written "\xNN".
///
/// Two names with the same registry form are the same service.
///
/// Plain values; nothing throws but std::bad_alloc.
class CServiceName
{
public:
    /// From a caller. A null pointer makes the null name.
    static CServiceName s_clSaid(const wchar_t* pszName);
    /// From the init system: a unit's name in a listing, ".service" not included, or a script's file name.
    static CServiceName s_clListed(std::string_view csListed);

    bool bNull() const { return m_bNull; }
    const std::wstring& csText() const { return m_csText; }
    std::wstring csRegistry() const;
    /// Empty for a name that no unit can have or that systemctl would not read as one whole name. Such a name
    /// holds a pattern character, a slash, a double quote, a space or a control character, begins with "-",
    /// ends like a whole unit name (".service", ".timer"...), holds what looks like an escape, or is longer
    /// than a file name can be. A script that is listed has no asked form either.
    const std::wstring& csAsked() const { return m_csAsked; }
    std::wstring csUnitFile() const { return m_csAsked + L".service"; }
    /// The script's name, whatever the init system. A listing's prefix is compared in this form, too.
    std::wstring csScript() const;

    /// The name that a lookup under systemd looks for: the registry form, in which ";" and "|" stand for
    /// spaces, without the spaces around it. Only a lookup replaces these two; clients rely on it. A name
    /// with a space left inside has no asked form and so is not found.
    CServiceName clLookedUp() const;
    /// The same service's name with the registry form as its text, as if it had been listed.
    CServiceName clRegistered() const { return {csRegistry(), m_csAsked, true}; }
    /// The name that was said at the registration, before the substitutions: the display name, if a
    /// registration under that name gives this service, else the text.
    std::wstring csRegisteredAs(const wchar_t* pszDisplayName) const;
    /// The name for people: the display name, whatever it says; the service's own when there is none, or when
    /// a control character in it could forge fields of a list.
    std::wstring csShownAs(const wchar_t* pszDisplayName) const;

    /// Whether a service can be installed under the name, started with it as an argument, and found by it.
    bool bInstallable() const;

    /// Whether this name, from a caller, is the found service's own: by its registry form or by its text.
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
