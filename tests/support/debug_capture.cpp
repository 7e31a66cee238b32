#include "support/debug_capture.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace {

const DWORD kDbgPrintWide = 0x4001000A;   // DBG_PRINTEXCEPTION_WIDE_C
const DWORD kDbgPrintAnsi = 0x40010006;   // DBG_PRINTEXCEPTION_C

struct CaptureState {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::wstring> texts;
    int users = 0;
    PVOID handler = nullptr;
};

CaptureState& State()
{
    static CaptureState* state = new CaptureState;   // lives until exit: handlers may still run
    return *state;
}

std::wstring FromAnsi(const char* text, size_t bytes)
{
    if (text == nullptr)
        return std::wstring();
    int len = (int)strnlen(text, bytes);
    int n = MultiByteToWideChar(CP_ACP, 0, text, len, nullptr, 0);
    std::wstring out(n, L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, len, &out[0], n);
    return out;
}

void Record(std::wstring text)
{
    CaptureState& state = State();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.texts.push_back(std::move(text));
    }
    state.changed.notify_all();
}

LONG CALLBACK OnException(PEXCEPTION_POINTERS info)
{
    const EXCEPTION_RECORD* rec = info->ExceptionRecord;
    DWORD lastError = GetLastError();
    if (rec->ExceptionCode == kDbgPrintWide && rec->NumberParameters >= 2) {
        const wchar_t* text = reinterpret_cast<const wchar_t*>(rec->ExceptionInformation[1]);
        size_t chars = rec->ExceptionInformation[0];
        Record(text ? std::wstring(text, wcsnlen(text, chars)) : std::wstring());
    } else if (rec->ExceptionCode == kDbgPrintAnsi && rec->NumberParameters >= 2) {
        Record(FromAnsi(reinterpret_cast<const char*>(rec->ExceptionInformation[1]),
                        rec->ExceptionInformation[0]));
    } else {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    SetLastError(lastError);
    return EXCEPTION_CONTINUE_EXECUTION;
}

}  // namespace

DebugCapture::DebugCapture()
{
    CaptureState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.users++ == 0) {
        state.texts.clear();
        state.handler = AddVectoredExceptionHandler(1, OnException);
    }
}

DebugCapture::~DebugCapture()
{
    CaptureState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (--state.users == 0) {
        RemoveVectoredExceptionHandler(state.handler);
        state.handler = nullptr;
    }
}

std::vector<std::wstring> DebugCapture::Texts() const
{
    CaptureState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.texts;
}

size_t DebugCapture::Count(const std::wstring& text) const
{
    CaptureState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return std::count(state.texts.begin(), state.texts.end(), text);
}

std::vector<std::wstring> DebugCapture::StartingWith(const std::wstring& prefix) const
{
    std::vector<std::wstring> out;
    for (const std::wstring& t : Texts())
        if (t.compare(0, prefix.size(), prefix) == 0)
            out.push_back(t);
    return out;
}

bool DebugCapture::WaitUntil(const std::function<bool(const std::vector<std::wstring>&)>& done,
                             std::chrono::milliseconds timeout) const
{
    CaptureState& state = State();
    std::unique_lock<std::mutex> lock(state.mutex);
    return state.changed.wait_for(lock, timeout, [&] { return done(state.texts); });
}

void DebugCapture::Clear()
{
    CaptureState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.texts.clear();
}

std::string Utf8(const std::wstring& text)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), (int)text.size(), nullptr, 0, nullptr, nullptr);
    std::string out(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), (int)text.size(), &out[0], n, nullptr, nullptr);
    return out;
}
