/* The whole public interface of qkcommon. */
#ifndef QK_QKCOMMON_H
#define QK_QKCOMMON_H

#include "qk/types.h"
#include "qk/array.h"
#include "qk/thread.h"
#include "qk/memory.h"
#include "qk/frame.h"

#endif /* QK_QKCOMMON_H */
