#include "sealkit_link.h"

#include <mutex>

namespace sealkit {

namespace {

// Waits until the socket is readable or writable, within the link's bound.
bool WaitReady(Link* link, bool forRead)
{
    LONGLONG left = 0;
    if (link->mode == LinkMode::Handshake)
        left = (LONGLONG)(link->deadline - GetTickCount64());
    if (left < 0)
        left = 0;
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(link->socket, &ready);
    timeval wait = {(long)(left / 1000), (long)(left % 1000) * 1000};
    int n = select(0, forRead ? &ready : nullptr, forRead ? nullptr : &ready, nullptr, &wait);
    if (n > 0)
        return true;
    link->socketError = n == 0 ? WSAETIMEDOUT : WSAGetLastError();
    return false;
}

int LinkRead(BIO* bio, char* out, int size)
{
    Link* link = static_cast<Link*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    for (;;) {
        if (link->mode != LinkMode::Data && !WaitReady(link, true))
            return -1;
        int n = recv(link->socket, out, size, 0);
        if (n > 0)
            return n;
        if (n == 0) {
            link->eof = true;
            return 0;
        }
        int error = WSAGetLastError();
        if (error != WSAEWOULDBLOCK) {
            link->socketError = error;
            return -1;
        }
        if (link->mode == LinkMode::Data) {
            BIO_set_retry_read(bio);
            return -1;
        }
    }
}

int LinkWrite(BIO* bio, const char* in, int size)
{
    Link* link = static_cast<Link*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    for (;;) {
        if (link->mode != LinkMode::Data && !WaitReady(link, false))
            return -1;
        int n = send(link->socket, in, size, 0);
        if (n >= 0)
            return n;
        int error = WSAGetLastError();
        if (error != WSAEWOULDBLOCK || link->mode == LinkMode::Closing) {
            link->socketError = error;
            return -1;
        }
        if (link->mode == LinkMode::Data) {
            BIO_set_retry_write(bio);
            return -1;
        }
    }
}

long LinkCtrl(BIO* bio, int cmd, long, void*)
{
    switch (cmd) {
    case BIO_CTRL_FLUSH:
        return 1;
    case BIO_CTRL_EOF:
        return static_cast<Link*>(BIO_get_data(bio))->eof ? 1 : 0;
    default:
        return 0;
    }
}

std::once_flag g_methodOnce;
BIO_METHOD* g_method = nullptr;

void MakeMethod()
{
    BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "sealkit socket");
    if (method && BIO_meth_set_read(method, LinkRead) && BIO_meth_set_write(method, LinkWrite) &&
        BIO_meth_set_ctrl(method, LinkCtrl)) {
        g_method = method;
        return;
    }
    BIO_meth_free(method);
}

}  // namespace

BIO* NewLinkBio(Link* link)
{
    std::call_once(g_methodOnce, MakeMethod);
    BIO* bio = g_method ? BIO_new(g_method) : nullptr;
    if (!bio)
        return nullptr;
    BIO_set_data(bio, link);
    BIO_set_init(bio, 1);
    return bio;
}

void ReleaseLinkMethod()
{
    BIO_meth_free(g_method);
    g_method = nullptr;
}

}  // namespace sealkit
