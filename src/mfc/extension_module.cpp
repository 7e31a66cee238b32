#include "mfc/afx.h"

namespace {

// The chain of registered libraries. Changes come from DllMain (under the
// loader lock) or from the application; a critical section keeps it whole.
struct LibraryChain {
    CRITICAL_SECTION cs;
    CDynLinkLibrary* pFirst = NULL;
    LibraryChain() { InitializeCriticalSection(&cs); }
    ~LibraryChain() { DeleteCriticalSection(&cs); }
};

LibraryChain& Chain()
{
    static LibraryChain chain;
    return chain;
}

}  // namespace

IMPLEMENT_DYNAMIC(CDynLinkLibrary, CObject)

CDynLinkLibrary::CDynLinkLibrary(AFX_EXTENSION_MODULE& state, BOOL bSystem)
    : m_hModule(state.hModule), m_hResource(state.hResource), m_bSystem(bSystem), m_pNextDLL(NULL)
{
    LibraryChain& chain = Chain();
    EnterCriticalSection(&chain.cs);
    m_pNextDLL = chain.pFirst;
    chain.pFirst = this;
    LeaveCriticalSection(&chain.cs);
}

CDynLinkLibrary::~CDynLinkLibrary()
{
    LibraryChain& chain = Chain();
    EnterCriticalSection(&chain.cs);
    for (CDynLinkLibrary** pp = &chain.pFirst; *pp != NULL; pp = &(*pp)->m_pNextDLL) {
        if (*pp == this) {
            *pp = m_pNextDLL;
            break;
        }
    }
    LeaveCriticalSection(&chain.cs);
}

CDynLinkLibrary* CDynLinkLibrary::GetFirst()
{
    return Chain().pFirst;
}

BOOL AFXAPI AfxInitExtensionModule(AFX_EXTENSION_MODULE& state, HMODULE hModule)
{
    if (state.bInitialized)
        return TRUE;
    if (hModule == NULL)
        return FALSE;
    state.hModule = hModule;
    state.hResource = hModule;
    state.pFirstSharedClass = NULL;
    state.pFirstSharedFactory = NULL;
    state.bInitialized = TRUE;
    return TRUE;
}

// Deletes the CDynLinkLibrary objects of this module (all of them with bAll)
// and marks the module as no longer initialised.
void AFXAPI AfxTermExtensionModule(AFX_EXTENSION_MODULE& state, BOOL bAll)
{
    if (!state.bInitialized)
        return;
    LibraryChain& chain = Chain();
    EnterCriticalSection(&chain.cs);
    CDynLinkLibrary* p = chain.pFirst;
    while (p != NULL) {
        CDynLinkLibrary* pNext = p->m_pNextDLL;
        if (bAll || p->m_hModule == state.hModule)
            delete p;   // unlinks itself; re-entering our own lock is fine
        p = pNext;
    }
    LeaveCriticalSection(&chain.cs);
    state.bInitialized = FALSE;
}
