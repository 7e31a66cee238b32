#include "overlapped/local_time.h"

#include <ctime>

DATE CurrentLocalOleDate()
{
    __time64_t now = _time64(NULL);
    struct tm local = {};
    if (_localtime64_s(&local, &now) != 0)
        return 0.0;
    SYSTEMTIME st = {};
    st.wYear = static_cast<WORD>(local.tm_year + 1900);
    st.wMonth = static_cast<WORD>(local.tm_mon + 1);
    st.wDayOfWeek = static_cast<WORD>(local.tm_wday);
    st.wDay = static_cast<WORD>(local.tm_mday);
    st.wHour = static_cast<WORD>(local.tm_hour);
    st.wMinute = static_cast<WORD>(local.tm_min);
    st.wSecond = static_cast<WORD>(local.tm_sec);
    st.wMilliseconds = 0;
    DATE date = 0.0;
    if (!SystemTimeToVariantTime(&st, &date))
        return 0.0;
    return date;
}
