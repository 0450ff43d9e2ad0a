#pragma once

#include <sys/resource.h>

/// Lowers (or raises) a soft limit of this process for the life of the object.
class CSoftLimit
{
public:
    CSoftLimit(__rlimit_resource eResource, rlim_t nSoft) : m_eResource(eResource)
    {
        ::getrlimit(eResource, &m_stBefore);
        Set(nSoft);
    }
    ~CSoftLimit() { ::setrlimit(m_eResource, &m_stBefore); }
    CSoftLimit(const CSoftLimit&) = delete;
    CSoftLimit& operator=(const CSoftLimit&) = delete;

    void Set(rlim_t nSoft) const
    {
        const rlimit st{nSoft, m_stBefore.rlim_max};
        ::setrlimit(m_eResource, &st);
    }
    rlim_t nHard() const { return m_stBefore.rlim_max; }

private:
    __rlimit_resource m_eResource;
    rlimit m_stBefore{};
};
