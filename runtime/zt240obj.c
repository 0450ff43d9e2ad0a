#include "zt240obj.h"

int bInitObjects(void)
{
    return 1;
}
