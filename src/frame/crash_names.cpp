// Names and explanations of the exceptions that a crash report can name.
#include "frame/crash_report.h"

namespace {

const qk::CrashExceptionText exceptionTexts[] = {
    {QK_EXCEPTION_ACCESS_VIOLATION, "ACCESS_VIOLATION",
     "The thread tried to read from or write to a virtual address for which it does not have the "
     "appropriate access."},
    {QK_EXCEPTION_ARRAY_BOUNDS_EXCEEDED, "ARRAY_BOUNDS_EXCEEDED",
     "The thread tried to access an array element that is out of bounds and the underlying "
     "hardware supports bounds checking."},
    {QK_EXCEPTION_BREAKPOINT, "BREAKPOINT", "A breakpoint was encountered."},
    {QK_EXCEPTION_DATATYPE_MISALIGNMENT, "DATATYPE_MISALIGNMENT",
     "The thread tried to read or write data that is misaligned on hardware that does not provide "
     "alignment. For example, 16-bit values must be aligned on 2-byte boundaries; 32-bit values "
     "on 4-byte boundaries, and so on."},
    {QK_EXCEPTION_FLT_DENORMAL_OPERAND, "FLT_DENORMAL_OPERAND",
     "One of the operands in a floating-point operation is denormal. A denormal value is one that "
     "is too small to represent as a standard floating-point value."},
    {QK_EXCEPTION_FLT_DIVIDE_BY_ZERO, "FLT_DIVIDE_BY_ZERO",
     "The thread tried to divide a floating-point value by a floating-point divisor of zero."},
    {QK_EXCEPTION_FLT_INEXACT_RESULT, "FLT_INEXACT_RESULT",
     "The result of a floating-point operation cannot be represented exactly as a decimal "
     "fraction."},
    {QK_EXCEPTION_FLT_INVALID_OPERATION, "FLT_INVALID_OPERATION",
     "This exception represents any floating-point exception not included in this list."},
    {QK_EXCEPTION_FLT_OVERFLOW, "FLT_OVERFLOW",
     "The exponent of a floating-point operation is greater than the magnitude allowed by the "
     "corresponding type."},
    {QK_EXCEPTION_FLT_STACK_CHECK, "FLT_STACK_CHECK",
     "The stack overflowed or underflowed as the result of a floating-point operation."},
    {QK_EXCEPTION_FLT_UNDERFLOW, "FLT_UNDERFLOW",
     "The exponent of a floating-point operation is less than the magnitude allowed by the "
     "corresponding type."},
    {QK_EXCEPTION_ILLEGAL_INSTRUCTION, "ILLEGAL_INSTRUCTION",
     "The thread tried to execute an invalid instruction."},
    {QK_EXCEPTION_IN_PAGE_ERROR, "IN_PAGE_ERROR",
     "The thread tried to access a page that was not present, and the system was unable to load "
     "the page. For example, this exception might occur if a network connection is lost while "
     "running a program over the network."},
    {QK_EXCEPTION_INT_DIVIDE_BY_ZERO, "INT_DIVIDE_BY_ZERO",
     "The thread tried to divide an integer value by an integer divisor of zero."},
    {QK_EXCEPTION_INT_OVERFLOW, "INT_OVERFLOW",
     "The result of an integer operation caused a carry out of the most significant bit of the "
     "result."},
    {QK_EXCEPTION_INVALID_DISPOSITION, "INVALID_DISPOSITION",
     "An exception handler returned an invalid disposition to the exception dispatcher. "
     "Programmers using a high-level language such as C should never encounter this exception."},
    {QK_EXCEPTION_NONCONTINUABLE_EXCEPTION, "NONCONTINUABLE_EXCEPTION",
     "The thread tried to continue execution after a noncontinuable exception occurred."},
    {QK_EXCEPTION_PRIV_INSTRUCTION, "PRIV_INSTRUCTION",
     "The thread tried to execute an instruction whose operation is not allowed in the current "
     "machine mode."},
    {QK_EXCEPTION_SINGLE_STEP, "SINGLE_STEP",
     "A trace trap or other single-instruction mechanism signaled that one instruction has been "
     "executed."},
    {QK_EXCEPTION_STACK_OVERFLOW, "STACK_OVERFLOW", "The thread used up its stack."},
};

const qk::CrashExceptionText unknownText = {0, "UNKNOWN", "An unknown exception occured."};

}  // namespace

namespace qk {

const CrashExceptionText &CrashDescribe(UInt code) {
    for (const CrashExceptionText &text : exceptionTexts) {
        if (text.code == code) return text;
    }
    return unknownText;
}

}  // namespace qk
