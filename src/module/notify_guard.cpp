#include "module/notify_guard.h"

BOOL WiInvokeGuarded(void (*pfnCall)(void*), void* pContext)
{
    return InvokeGuarded([&] { pfnCall(pContext); }) ? TRUE : FALSE;
}
