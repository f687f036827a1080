// The generated decomposition and combining mark tables (tools/qkgen: qkgen
// unicode-normal).
#include "qk/types.h"
#include "text/tables.h"

namespace qk::text {

#include "text/generated/unicode_normal.inc"

}  // namespace qk::text
static_assert(qk::text::kNormalMaxLength <= qk::text::kNormalBufferLength);
