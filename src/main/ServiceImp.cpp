#include "main/ServiceImp.h"

CServiceImp* gpclServiceImp = nullptr;

bool CServiceImp::vbGetServiceUser(wchar_t*)
{
    return false;
}

bool CServiceImp::vbGetOwnDirectory(wchar_t*)
{
    return false;
}
