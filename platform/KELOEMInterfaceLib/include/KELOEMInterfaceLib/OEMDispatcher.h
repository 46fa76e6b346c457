#pragma once

/// Includes all of libKELOEMInterfaceLib: the dispatcher's interface and the Linux edition's two dispatchers.

#include <KELOEMInterfaceLib/ManualDispatcher.h>
#include <KELOEMInterfaceLib/NetlinkDispatcher.h>
#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>
