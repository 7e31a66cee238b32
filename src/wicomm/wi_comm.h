// Placeholder until the message-window stack lands: the module's unload calls Cleanup.
#ifndef WISOCK_WICOMM_WI_COMM_H
#define WISOCK_WICOMM_WI_COMM_H

#include "mfc/afx.h"

class WISOCK_API CWiComm {
public:
    static void Cleanup();
};

#endif
