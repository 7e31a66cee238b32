// Calls into application code (notify objects) go through here: an exception
// of the CException family is caught and deleted, and the caller goes on with
// its next step as if the call had returned. Other exceptions pass.
#ifndef WISOCK_MODULE_NOTIFY_GUARD_H
#define WISOCK_MODULE_NOTIFY_GUARD_H

#include "mfc/afx.h"

// Runs call(); returns true if it returned, false if it threw a CException*.
template <class Call>
bool InvokeGuarded(Call&& call)
{
    try {
        call();
        return true;
    } catch (CException* e) {
        e->Delete();
        return false;
    }
}

// The same mechanism compiled into wisock.dll, for callers across the module
// boundary (tests prove with it that application exceptions are caught here).
WISOCK_API BOOL WiInvokeGuarded(void (*pfnCall)(void*), void* pContext);

#endif
