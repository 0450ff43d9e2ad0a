// Measures the manager next to its floors on this machine and writes the rows of the table. It registers
// servers, and starts and kills managers: run it in a throwaway machine only.

#include "Rows.h"
#include "Tools.h"

#include <cstdio>
#include <cstring>
#include <sys/resource.h>

int main(int argc, char** argv)
{
    static constexpr struct
    {
        const char* pszName;
        void (*pfnRows)();
    } tParts[] = {{"service", ServiceRows},
                  {"list", ListRows},
                  {"server", ServerRows},
                  {"crowd", CrowdRows},
                  {"life", LifeRows}};

    rlimit stLimit{}; // the children that hold the connections inherit it
    ::getrlimit(RLIMIT_NOFILE, &stLimit);
    stLimit.rlim_cur = stLimit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &stLimit);

    if (clConnect(g_wOurs).bOpen() || clConnect(g_wFloor).bOpen()) {
        Die("another program listens on one of the two ports");
    }

    for (const auto& st : tParts) {
        if (argc < 2 || std::strcmp(argv[1], st.pszName) == 0) {
            st.pfnRows();
        }
    }
    return 0;
}
