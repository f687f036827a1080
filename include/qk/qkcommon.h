/* The whole public interface of qkcommon. */
#ifndef QK_QKCOMMON_H
#define QK_QKCOMMON_H

#include "qk/arena.h"
#include "qk/array.h"
#include "qk/btree.h"
#include "qk/channel.h"
#include "qk/dbarray.h"
#include "qk/digest.h"
#include "qk/file.h"
#include "qk/fingerprint.h"
#include "qk/frame.h"
#include "qk/hash.h"
#include "qk/log.h"
#include "qk/loggedvm.h"
#include "qk/memory.h"
#include "qk/normal.h"
#include "qk/pictree.h"
#include "qk/pimtree.h"
#include "qk/pitree.h"
#include "qk/server.h"
#include "qk/status.h"
#include "qk/thread.h"
#include "qk/types.h"
#include "qk/unicode.h"
#include "qk/varray.h"

#endif /* QK_QKCOMMON_H */
