/* Interface indexes: the forwarding plane and the control plane number interfaces differently. */
#ifndef KES_INTERFACE_INDEX_H
#define KES_INTERFACE_INDEX_H

#include "kes/api.h"

KES_BEGIN_DECLS

/* The control-plane index of a forwarding-plane interface. Callable from any thread. */
KES_API uint32_t HostFwdIfIdx2CtrlIfIdx(uint32_t forwardingIndex);

KES_END_DECLS

#endif
