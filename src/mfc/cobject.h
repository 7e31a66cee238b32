// CObject and its run-time class records.
#ifndef WISOCK_MFC_COBJECT_H
#define WISOCK_MFC_COBJECT_H

#include <winsock2.h>
#include <windows.h>

#include "module/export.h"

class CObject;
class CArchive;
class CDumpContext;

struct WISOCK_API CRuntimeClass {
    LPCSTR m_lpszClassName;
    int m_nObjectSize;
    UINT m_wSchema;                                   // 0xFFFF: not serialisable
    CObject* (PASCAL* m_pfnCreateObject)();           // null for abstract classes
    CRuntimeClass* (PASCAL* m_pfnGetBaseClass)();
    CRuntimeClass* m_pNextClass;
    const void* m_pClassInit;

    CObject* CreateObject();
    BOOL IsDerivedFrom(const CRuntimeClass* pBaseClass) const;
};

#define _RUNTIME_CLASS(class_name) ((CRuntimeClass*)(&class_name::class##class_name))
#define RUNTIME_CLASS(class_name) (class_name::GetThisClass())

#define DECLARE_DYNAMIC(class_name)                         \
protected:                                                  \
    static CRuntimeClass* PASCAL _GetBaseClass();           \
public:                                                     \
    static const CRuntimeClass class##class_name;           \
    static CRuntimeClass* PASCAL GetThisClass();            \
    virtual CRuntimeClass* GetRuntimeClass() const;

#define DECLARE_DYNCREATE(class_name) \
    DECLARE_DYNAMIC(class_name)       \
    static CObject* PASCAL CreateObject();

#define IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, wSchema, pfnNew, class_init)     \
    CRuntimeClass* PASCAL class_name::_GetBaseClass() { return RUNTIME_CLASS(base_class_name); } \
    const CRuntimeClass class_name::class##class_name = {                                     \
        #class_name, sizeof(class class_name), wSchema, pfnNew,                               \
        &class_name::_GetBaseClass, NULL, class_init};                                        \
    CRuntimeClass* PASCAL class_name::GetThisClass() { return _RUNTIME_CLASS(class_name); }  \
    CRuntimeClass* class_name::GetRuntimeClass() const { return _RUNTIME_CLASS(class_name); }

#define IMPLEMENT_DYNAMIC(class_name, base_class_name) \
    IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, 0xFFFF, NULL, NULL)

#define IMPLEMENT_DYNCREATE(class_name, base_class_name)                       \
    CObject* PASCAL class_name::CreateObject() { return new class_name; }      \
    IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, 0xFFFF, class_name::CreateObject, NULL)

class WISOCK_API CObject {
public:
    virtual CRuntimeClass* GetRuntimeClass() const;
    virtual ~CObject() = 0;

    virtual void Serialize(CArchive& ar);
    virtual void AssertValid() const;
    virtual void Dump(CDumpContext& dc) const;

    BOOL IsKindOf(const CRuntimeClass* pClass) const;
    BOOL IsSerializable() const;

    static const CRuntimeClass classCObject;
    static CRuntimeClass* PASCAL _GetBaseClass();
    static CRuntimeClass* PASCAL GetThisClass();

protected:
    CObject();

private:
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;
};

#endif
