// CWiSockAddr: the port rules of text, bad texts, the buffer forms at their
// size limit, the text cache across assignments, and foreign families.
#include "wicomm/wi_inet_addr.h"
#include "wicomm/wi_sock_addr.h"

#include "support/net.h"

#include <gtest/gtest.h>

#include <string>

namespace {

WinsockScope g_winsock;

// Reaches the record and the cache the way a caller of the class can't.
class Probe : public CWiSockAddr {
public:
    using CWiSockAddr::CWiSockAddr;
    using CWiSockAddr::operator=;
    const wchar_t* Cache() const { return m_pString; }
};

unsigned short Port(const CWiSockAddr& addr)
{
    return ntohs(static_cast<const sockaddr_in*>(addr)->sin_port);
}

// Values print without the port; the text constructor takes the port
// argument over the text's, text assignment the text's (0 without one).
TEST(CWiSockAddrTest, ValuesTextsAndTheirPorts)
{
    CWiSockAddr none;
    EXPECT_STREQ(L"0.0.0.0", none.ToString());
    CWiSockAddr local(0x7F000001, 80);
    EXPECT_STREQ(L"127.0.0.1", local.ToString());
    EXPECT_EQ(0x7F000001ul, (unsigned long)local);
    EXPECT_EQ(80, Port(local)) << "printing must not change the port";
    EXPECT_EQ(AF_INET, static_cast<const sockaddr*>(local)->sa_family);
    EXPECT_EQ(htonl(0x7F000001), local.operator sockaddr_in().sin_addr.s_addr);

    CWiSockAddr plain(L"10.1.2.3", 80);
    EXPECT_STREQ(L"10.1.2.3", plain.ToString());
    EXPECT_EQ(80, Port(plain));
    CWiSockAddr withPort(L"10.1.2.3:99", 80);
    EXPECT_EQ(80, Port(withPort));
    EXPECT_EQ(0x0A010203ul, (unsigned long)withPort);

    local = L"10.1.2.3:99";
    EXPECT_EQ(99, Port(local));
    EXPECT_EQ(0x0A010203ul, (unsigned long)local);
    local = "10.4.5.6";
    EXPECT_EQ(0, Port(local)) << "a text without a port sets port 0";
    EXPECT_STREQ(L"10.4.5.6", local.ToString());
}

TEST(CWiSockAddrTest, AssignmentsDropTheCacheAndSelfAssignmentKeepsIt)
{
    Probe addr(0x7F000001, 80);
    const wchar_t* text = addr.ToString();
    ASSERT_NE(nullptr, text);
    addr = text;   // its own text: nothing happens
    EXPECT_EQ(text, addr.Cache());
    EXPECT_EQ(80, Port(addr)) << "its own text must not reset the port";

    addr = 0x0A000001ul;
    EXPECT_EQ(nullptr, addr.Cache());
    EXPECT_EQ(80, Port(addr)) << "the address form keeps the port";
    EXPECT_STREQ(L"10.0.0.1", addr.ToString());
    addr = addr.ToString() + 1;   // a text inside its own cache: "0.0.0.1"
    EXPECT_EQ(1ul, (unsigned long)addr) << "the cache was freed before its text was read";
    EXPECT_STREQ(L"0.0.0.1", addr.ToString());
    addr = 0x0A000001ul;

    CWiSockAddr other(0xC0A80001, 1);
    addr = other;
    EXPECT_EQ(nullptr, addr.Cache());
    EXPECT_STREQ(L"192.168.0.1", addr.ToString());

    CWiSockAddr copied(addr);   // copies don't take the cache over
    EXPECT_STREQ(L"192.168.0.1", copied.ToString());
    EXPECT_NE(copied.ToString(), addr.Cache());
}

TEST(CWiSockAddrTest, BufferFormsTakeExactlyTheTextAndItsTerminator)
{
    CWiSockAddr addr(0x0A010203, 80);   // "10.1.2.3": 8 characters
    wchar_t wide[16];
    wmemset(wide, L'#', 16);
    EXPECT_EQ(0, addr.ToString(wide, 8));
    EXPECT_EQ(L'#', wide[0]) << "a refused buffer is left alone";
    EXPECT_EQ(1, addr.ToString(wide, 9));
    EXPECT_STREQ(L"10.1.2.3", wide);
    EXPECT_EQ(0, addr.ToString(static_cast<wchar_t*>(nullptr), 16));

    char narrow[16];
    memset(narrow, '#', sizeof(narrow));
    EXPECT_EQ(0, addr.ToString(narrow, 8));
    EXPECT_EQ('#', narrow[0]);
    EXPECT_EQ(1, addr.ToString(narrow, 12));
    EXPECT_STREQ("10.1.2.3", narrow);
    EXPECT_EQ(0, narrow[11]) << "the whole buffer is cleared";

    CString text(L"old");
    EXPECT_EQ(1, addr.ToString(text));
    EXPECT_TRUE(text == L"10.1.2.3");
}

// A bad text keeps the former address (the constructor's: all zero) but
// drops the cache; family 0 and a foreign family have no text.
TEST(CWiSockAddrTest, BadTextsAndForeignFamiliesGiveNoText)
{
    CWiSockAddr bad(L"not an address", 80);
    EXPECT_EQ(0, static_cast<const sockaddr*>(bad)->sa_family);
    EXPECT_EQ(nullptr, bad.ToString());
    Probe addr(0x0A010203, 7);
    ASSERT_NE(nullptr, addr.ToString());
    for (const wchar_t* text : {L"300.1.2.3", L""}) {
        addr = text;
        EXPECT_EQ(nullptr, addr.Cache());
        EXPECT_EQ(0x0A010203ul, (unsigned long)addr);
        EXPECT_EQ(7, Port(addr));
    }
    sockaddr_in foreign = {};
    foreign.sin_family = AF_INET6;   // 16 bytes can't hold an IPv6 record
    foreign.sin_addr.s_addr = htonl(0x0A010203);
    CWiSockAddr other(foreign);
    EXPECT_EQ(0ul, (unsigned long)other);
    EXPECT_EQ(nullptr, other.ToString());
    CString text(L"old");
    EXPECT_EQ(0, other.ToString(text));
    EXPECT_TRUE(text.IsEmpty()) << "the string is emptied first";
}

// CWiInetAddr: texts of both families read, printed and compared; texts of
// neither refused with the value unchanged.
TEST(CWiInetAddrTest, BothFamiliesRoundTripAndBadTextsAreRefused)
{
    struct Good {
        const wchar_t* text;
        int family;
        const wchar_t* printed;
        unsigned long scope;
    } good[] = {
        {L"127.0.0.1", AF_INET, L"127.0.0.1", 0},
        {L"::1", AF_INET6, L"::1", 0},
        {L"::", AF_INET6, L"::", 0},
        {L"fe80::1%3", AF_INET6, L"fe80::1%3", 3},
        {L"2001:DB8:0:0:0:0:0:1", AF_INET6, L"2001:db8::1", 0},
        {L"::ffff:10.0.0.1", AF_INET6, L"::ffff:10.0.0.1", 0},
    };
    for (const Good& g : good) {
        SCOPED_TRACE(CString(g.text).GetString());
        CWiInetAddr addr(g.text, 443);
        ASSERT_EQ(1, addr.IsValid());
        EXPECT_EQ(g.family, addr.GetFamily());
        EXPECT_EQ(443, addr.GetPort());
        EXPECT_EQ(g.scope, addr.GetScopeId());
        EXPECT_STREQ(g.printed, addr.ToString().GetString());
        EXPECT_EQ(g.family == AF_INET ? 16 : 28, addr.GetLength());
        CWiInetAddr copy(addr.GetSockaddr(), addr.GetLength());
        EXPECT_TRUE(copy == addr);
        CWiInetAddr reparsed(addr.ToString(), 443);
        EXPECT_TRUE(reparsed == addr) << "printed text reads back as the same value";
        copy.SetPort(444);
        EXPECT_TRUE(copy != addr);
    }
    EXPECT_TRUE(CWiInetAddr(L"fe80::1%3", 1) != CWiInetAddr(L"fe80::1%4", 1)) << "the scope id counts";
    EXPECT_TRUE(CWiInetAddr(L"::ffff:127.0.0.1", 1) != CWiInetAddr(L"127.0.0.1", 1)) << "families differ";

    CWiInetAddr kept(L"::1", 80);
    for (const wchar_t* bad : {L"::1::2", L"fe80::zz", L"[::1", L"[::1]", L"::1]:80", L"1.2.3.4.5", L"", L"localhost"}) {
        SCOPED_TRACE(CString(bad).GetString());
        WSASetLastError(0);
        EXPECT_EQ(0, kept.Parse(bad, 1));
        EXPECT_EQ(WSAEINVAL, WSAGetLastError());
        EXPECT_TRUE(kept == CWiInetAddr(L"::1", 80)) << "a refused text leaves the value";
        EXPECT_EQ(0, CWiInetAddr(bad, 1).IsValid());
    }
    sockaddr_in6 shortRecord = {};
    shortRecord.sin6_family = AF_INET6;
    EXPECT_EQ(0, kept.Assign(reinterpret_cast<sockaddr*>(&shortRecord), 16)) << "an IPv6 record is 28 bytes";
    EXPECT_EQ(0, CWiInetAddr().IsValid());
    EXPECT_STREQ(L"", CWiInetAddr().ToString().GetString());
}

}  // namespace
