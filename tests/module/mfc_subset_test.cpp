// The MFC subset: formatted text, run-time classes, exceptions across the DLL boundary.
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "module/debug_trace.h"
#include "module/module.h"
#include "module/notify_guard.h"
#include "support/debug_capture.h"

namespace {

class CAnimal : public CObject {
    DECLARE_DYNAMIC(CAnimal)
public:
    CAnimal() {}
};
IMPLEMENT_DYNAMIC(CAnimal, CObject)

class CDog : public CAnimal {
    DECLARE_DYNCREATE(CDog)
public:
    CDog() {}
};
IMPLEMENT_DYNCREATE(CDog, CAnimal)

class CAppException : public CException {
public:
    explicit CAppException(int* pDeleted) : m_pDeleted(pDeleted) {}
    ~CAppException() override { ++*m_pDeleted; }
    int* m_pDeleted;
};

}  // namespace

TEST(CStringFormat, KeepsChineseAndFullWidthTextExactly)
{
    CString s;
    s.Format(L"%s（%d）：%s\n", L"连接关闭", 42, L"正常");
    EXPECT_STREQ(s, L"连接关闭（42）：正常\n");
    EXPECT_EQ(s.GetLength(), 12);

    // %s in a wide format is a wide string; %S a narrow one; %p has no 0x.
    s.Format(L"[%s|%S|%p|%u]", L"wide", "narrow", (void*)0x1234, 4294967295u);
    EXPECT_STREQ(s.GetString(), L"[wide|narrow|0000000000001234|4294967295]");

    CString long_text;
    long_text.Format(L"%s%s", std::wstring(5000, L'x').c_str(), L"尾");
    EXPECT_EQ(long_text.GetLength(), 5001);
    EXPECT_EQ(long_text[5000], L'尾');
}

TEST(RuntimeClass, ChainAndIsKindOf)
{
    CDog dog;
    CAnimal animal;
    EXPECT_TRUE(dog.IsKindOf(RUNTIME_CLASS(CDog)));
    EXPECT_TRUE(dog.IsKindOf(RUNTIME_CLASS(CAnimal)));
    EXPECT_TRUE(dog.IsKindOf(RUNTIME_CLASS(CObject)));
    EXPECT_FALSE(animal.IsKindOf(RUNTIME_CLASS(CDog)));
    EXPECT_FALSE(animal.IsKindOf(RUNTIME_CLASS(CException)));

    CRuntimeClass* rc = dog.GetRuntimeClass();
    EXPECT_STREQ(rc->m_lpszClassName, "CDog");
    EXPECT_EQ(RUNTIME_CLASS(CAnimal)->CreateObject(), nullptr) << "DECLARE_DYNAMIC makes no objects";
    CObject* made = rc->CreateObject();
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(made->IsKindOf(RUNTIME_CLASS(CDog)));
    delete made;
}

TEST(CExceptionAcrossModules, ThrownByApplicationCaughtAndDeletedInsideDll)
{
    int deleted = 0;
    auto throwing = [](void* ctx) { throw new CAppException(static_cast<int*>(ctx)); };
    EXPECT_FALSE(WiInvokeGuarded(throwing, &deleted)) << "wisock.dll must catch the CException*";
    EXPECT_EQ(deleted, 1) << "and Delete it";

    int calls = 0;
    EXPECT_TRUE(WiInvokeGuarded([](void* ctx) { ++*static_cast<int*>(ctx); }, &calls));
    EXPECT_EQ(calls, 1);

    // Other exceptions are not the library's to swallow.
    EXPECT_THROW(WiInvokeGuarded([](void*) { throw std::runtime_error("app"); }, nullptr), std::runtime_error);
}

TEST(CExceptionDelete, KeepsAnExceptionWithoutAutoDelete)
{
    CException fixed(FALSE);
    fixed.Delete();   // must not free a stack object
    SUCCEED();
}

// The exact wide text reaches a debugger from any thread; the debug-output
// example prints this test's Chinese line.
TEST(DebugTrace, CaptureSeesExactTextFromAnyThread)
{
    DebugCapture capture;
    WiTrace(L"连接失败（%d）：%s\n", 10061, L"拒绝");
    std::thread([] { WiTrace(L"worker %d\n", 7); }).join();
    CString buffer;
    WiTraceInto(buffer, L"into %s\n", L"buffer");
    EXPECT_TRUE(capture.Contains(L"连接失败（10061）：拒绝\n"));
    EXPECT_TRUE(capture.Contains(L"worker 7\n"));
    EXPECT_STREQ(buffer, L"into buffer\n");
}
