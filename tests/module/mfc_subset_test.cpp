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

// The members an application may use, at their bounds.
TEST(CStringMembers, FindSliceTrimReplaceAndTokenizeAtTheirBounds)
{
    const CString t(L"C:127.0.0.1:80");   // 14 characters
    EXPECT_EQ(1, t.Find(L':'));
    EXPECT_EQ(11, t.Find(L':', 2));
    EXPECT_EQ(13, t.Find(L'0', 13));
    EXPECT_EQ(-1, t.Find(L':', -1));
    EXPECT_EQ(6, t.Find(L"0.0"));
    EXPECT_EQ(14, t.Find(L"", 14));
    EXPECT_EQ(-1, t.Find(L"", 15));
    EXPECT_EQ(11, t.ReverseFind(L':'));
    EXPECT_EQ(-1, t.ReverseFind(L'x'));
    EXPECT_STREQ(L"127.0.0.1:80", t.Mid(2));
    EXPECT_STREQ(L"127", t.Mid(2, 3));
    EXPECT_STREQ(L"C:1", t.Mid(-5, 3));
    EXPECT_STREQ(L"", t.Mid(2, -1));
    EXPECT_STREQ(L"0", t.Mid(13));
    EXPECT_STREQ(L"", t.Mid(14));
    EXPECT_STREQ(L"C", t.Left(1));
    EXPECT_STREQ(L"80", t.Right(2));
    EXPECT_STREQ(L"", t.Right(0));
    EXPECT_STREQ(t, t.Right(14));
    EXPECT_STREQ(t, t.Right(99));
    int pos = 0;
    for (const wchar_t* token : {L"C", L"127.0.0.1", L"80", L""})
        EXPECT_STREQ(token, t.Tokenize(L":", pos));
    EXPECT_EQ(-1, pos);

    const CString s(L"  Ab c \t");
    EXPECT_STREQ(L"Ab c", CString(s).Trim());
    EXPECT_STREQ(L"Ab c \t", CString(s).TrimLeft());
    EXPECT_STREQ(L"  AB C \t", CString(s).MakeUpper());
    EXPECT_STREQ(L"  ab c \t", CString(s).MakeLower());
    CString r(L"aaa");
    EXPECT_EQ(3, r.Replace(L"a", L"aa")) << "the replacement is not searched again";
    EXPECT_STREQ(L"aaaaaa", r);
    EXPECT_EQ(0, r.Replace(L"", L"x"));
    EXPECT_EQ(0, CString(L"abc").Compare(L"abc"));
    EXPECT_GT(0, CString(L"abc").Compare(L"abd"));
    EXPECT_EQ(0, CString(L"ABC").CompareNoCase(L"abc"));

    CString b(L"xy");
    wcscpy(b.GetBuffer(10), L"longer");
    b.ReleaseBuffer();
    EXPECT_STREQ(L"longer", b);
    b.ReleaseBuffer(4);
    EXPECT_EQ(L'\0', b.GetAt(4));
    b.SetAt(4, L'!');
    b.SetAt(0, L'L');
    b.AppendFormat(L"-%d", 7);
    EXPECT_STREQ(L"Long-7", b);
    EXPECT_STREQ(L"xx", CString(L'x', 2));
    EXPECT_STREQ(L"", CString(L'x', -1));
    EXPECT_STREQ(L"ab", CString(L"abc", 2));
    CString narrow = "abc";
    EXPECT_STREQ(L"abc", narrow);
    narrow = "";
    EXPECT_TRUE(narrow.IsEmpty());
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
