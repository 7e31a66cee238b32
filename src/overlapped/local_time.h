// The local time now as an OLE automation date, in whole seconds; 0.0 if a
// conversion step fails. Internal to wisock.dll.
#ifndef WISOCK_OVERLAPPED_LOCAL_TIME_H
#define WISOCK_OVERLAPPED_LOCAL_TIME_H

#include <winsock2.h>
#include <windows.h>
#include <oleauto.h>

DATE CurrentLocalOleDate();

#endif
