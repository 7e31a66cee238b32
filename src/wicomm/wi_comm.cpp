#include "wicomm/wi_comm.h"

void CWiComm::Cleanup() {}
