#include "mfc/afx.h"

CObject* CRuntimeClass::CreateObject()
{
    return m_pfnCreateObject ? (*m_pfnCreateObject)() : NULL;
}

BOOL CRuntimeClass::IsDerivedFrom(const CRuntimeClass* pBaseClass) const
{
    const CRuntimeClass* pClass = this;
    while (pClass != NULL) {
        if (pClass == pBaseClass)
            return TRUE;
        pClass = pClass->m_pfnGetBaseClass ? (*pClass->m_pfnGetBaseClass)() : NULL;
    }
    return FALSE;
}

const CRuntimeClass CObject::classCObject = {
    "CObject", sizeof(CObject), 0xFFFF, NULL, &CObject::_GetBaseClass, NULL, NULL};

CObject::CObject() {}
CObject::~CObject() {}

CRuntimeClass* PASCAL CObject::_GetBaseClass() { return NULL; }
CRuntimeClass* PASCAL CObject::GetThisClass() { return _RUNTIME_CLASS(CObject); }
CRuntimeClass* CObject::GetRuntimeClass() const { return _RUNTIME_CLASS(CObject); }

void CObject::Serialize(CArchive&) {}
void CObject::AssertValid() const {}
void CObject::Dump(CDumpContext&) const {}

BOOL CObject::IsKindOf(const CRuntimeClass* pClass) const
{
    return GetRuntimeClass()->IsDerivedFrom(pClass);
}

BOOL CObject::IsSerializable() const
{
    return GetRuntimeClass()->m_wSchema != 0xFFFF;
}
