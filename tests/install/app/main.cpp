// An application outside the wisock tree, built against an install.
#include <cstdio>

#include "mfc/afx.h"
#include "wicomm/wi_sock_addr.h"

int main()
{
    CWiSockAddr addr(L"127.0.0.1", 80);
    CString text;
    if (!addr.ToString(text) || text != L"127.0.0.1") {
        std::printf("FAIL: address text\n");
        return 1;
    }
    std::printf("outside application: ok\n");
    return 0;
}
