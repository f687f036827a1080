// The crash report: built in one static buffer by concatenation and two small
// number writers, because the heap may be what is broken, then written to
// standard error, optionally to ERRORLOG.TXT, and to the system log.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

#include "frame/crash_report.h"
#include "frame/internal.h"

namespace {

// Appends to a fixed buffer; what does not fit is cut off, and the buffer
// always stays NUL-terminated.
class ReportText {
  public:
    ReportText(char *buffer, size_t size) : buffer_(buffer), size_(size) { buffer_[0] = '\0'; }

    void Put(const char *text) {
        while (*text && length_ + 1 < size_) buffer_[length_++] = *text++;
        buffer_[length_] = '\0';
    }

    // `digits` upper-case hexadecimal digits of the low bits of `value`.
    void Hex(ULong value, int digits) {
        char text[17];
        for (int i = digits - 1; i >= 0; i--) {
            text[i] = "0123456789ABCDEF"[value & 0xF];
            value >>= 4;
        }
        text[digits] = '\0';
        Put(text);
    }

    void Decimal(Long value) {
        char text[24];
        char *p = text + sizeof text;
        *--p = '\0';
        // Works on the magnitude as unsigned, so that the most negative
        // value has no overflow.
        ULong magnitude = value < 0 ? 0 - (ULong)value : (ULong)value;
        do {
            *--p = (char)('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude);
        if (value < 0) *--p = '-';
        Put(p);
    }

    void Register(const char *name, ULong value) {
        Put(name);
        Put(": 0x");
        Hex(value, 16);
        Put("\t");
    }

    const char *Data() const { return buffer_; }
    size_t Length() const { return length_; }

  private:
    char *buffer_;
    size_t size_;
    size_t length_ = 0;
};

char reportBuffer[16384];

// The report buffer is shared by all threads: one report at a time. A thread
// that faults again while writing its own report gets no second report
// instead of waiting for itself.
std::atomic<long> reportOwner{0};

// Difference between 1601-01-01 and 1970-01-01, in microseconds.
constexpr ULong kEpochDelta1601 = 11644473600000000ULL;

ULong NowMicros1601SignalSafe() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (ULong)now.tv_sec * 1000000 + (ULong)now.tv_nsec / 1000 + kEpochDelta1601;
}

ULong InstructionPointer(const void *ucontext) {
    [[maybe_unused]] const ucontext_t *uc = static_cast<const ucontext_t *>(ucontext);
#if defined(__x86_64__)
    return (ULong)uc->uc_mcontext.gregs[REG_RIP];
#elif defined(__aarch64__)
    return (ULong)uc->uc_mcontext.pc;
#else
    return 0;
#endif
}

void PutAccess([[maybe_unused]] ReportText &text, [[maybe_unused]] const siginfo_t *info,
               [[maybe_unused]] const void *ucontext) {
#if defined(__x86_64__)
    // Bit 1 of the page-fault error code tells a write from a read.
    const ucontext_t *uc = static_cast<const ucontext_t *>(ucontext);
    bool write = (uc->uc_mcontext.gregs[REG_ERR] & 2) != 0;
    text.Put(write ? " : bad write at 0x" : " : bad read at 0x");
    text.Hex((ULong)(uintptr_t)info->si_addr, 16);
#endif
}

void PutState(ReportText &text) {
    const MessageContext *context = qk::GetContext(false);
    if (context == nullptr || context->state.stateTime == 0) {
        text.Put("\nLast thread state: no state found.\n");
        return;
    }
    const MessageState &state = context->state;
    text.Put("\nLast thread state: ");
    text.Put(state.text.data ? reinterpret_cast<const char *>(state.text.data) : "??");
    text.Put("\n  at ");
    text.Put(state.stateFile ? state.stateFile : "");
    text.Put(":");
    text.Decimal(state.stateLine);
    text.Put("\n  ");
    text.Decimal((Long)(NowMicros1601SignalSafe() - state.stateTime));
    text.Put(" us ago.\n");
}

// The x86-64 registers, in pairs. SegSs is written only when the kernel
// saved it in the context (UC_SIGCONTEXT_SS); the line then ends after Rsp.
void PutRegisters([[maybe_unused]] ReportText &text, [[maybe_unused]] const void *ucontext) {
#if defined(__x86_64__)
    const ucontext_t *uc = static_cast<const ucontext_t *>(ucontext);
    const greg_t *r = uc->uc_mcontext.gregs;
    // REG_CSGSFS holds four 16-bit fields: cs, gs, fs, ss.
    const ULong segments = (ULong)r[REG_CSGSFS];
    text.Register("SegGs", (segments >> 16) & 0xFFFF);
    text.Register("SegFs", (segments >> 32) & 0xFFFF);
    text.Put("\n");
    text.Register("Rdi", (ULong)r[REG_RDI]);
    text.Register("Rsi", (ULong)r[REG_RSI]);
    text.Put("\n");
    text.Register("Rbx", (ULong)r[REG_RBX]);
    text.Register("Rdx", (ULong)r[REG_RDX]);
    text.Put("\n");
    text.Register("Rcx", (ULong)r[REG_RCX]);
    text.Register("Rax", (ULong)r[REG_RAX]);
    text.Put("\n");
    text.Register("R8", (ULong)r[REG_R8]);
    text.Register("R9", (ULong)r[REG_R9]);
    text.Put("\n");
    text.Register("R10", (ULong)r[REG_R10]);
    text.Register("R11", (ULong)r[REG_R11]);
    text.Put("\n");
    text.Register("R12", (ULong)r[REG_R12]);
    text.Register("R13", (ULong)r[REG_R13]);
    text.Put("\n");
    text.Register("R14", (ULong)r[REG_R14]);
    text.Register("R15", (ULong)r[REG_R15]);
    text.Put("\n");
    text.Register("Rbp", (ULong)r[REG_RBP]);
    text.Register("Rip", (ULong)r[REG_RIP]);
    text.Put("\n");
    text.Register("SegCs", segments & 0xFFFF);
    text.Register("EFlags", (ULong)r[REG_EFL]);
    text.Put("\n");
    text.Register("Rsp", (ULong)r[REG_RSP]);
    constexpr unsigned long kSigcontextSS = 0x2;  // UC_SIGCONTEXT_SS
    if (uc->uc_flags & kSigcontextSS) text.Register("SegSs", (segments >> 48) & 0xFFFF);
    text.Put("\n");
#endif
}

void Build(ReportText &text, UInt code, const siginfo_t *info, const void *ucontext) {
    const qk::CrashExceptionText &description = qk::CrashDescribe(code);
    text.Put("A fatal exception 0x");
    text.Hex(code, 8);
    text.Put(" (");
    text.Put(description.name);
    text.Put(") occured at 0x");
    text.Hex(InstructionPointer(ucontext), 16);
    text.Put(" in ");
    text.Put(QKProgramName());
    if (code == QK_EXCEPTION_ACCESS_VIOLATION) PutAccess(text, info, ucontext);
    text.Put(". ");
    text.Put(description.explanation);
    text.Put("\n");
    PutState(text);
    text.Put("\n");
    PutRegisters(text, ucontext);
}

void WriteAll(int fd, const char *data, size_t length) {
    while (length > 0) {
        ssize_t written = write(fd, data, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        data += written;
        length -= (size_t)written;
    }
}

void WriteLogFile(const char *path, const ReportText &text) {
    int fd = open(path, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) return;
    WriteAll(fd, text.Data(), text.Length());
    close(fd);
}

// The system log stands in for the event log: one message at priority
// user.err, tagged with the program name and the process id, sent to the
// local syslog socket as the C library's syslog would send it, but without
// its allocation and formatting. The receiver adds the time stamp.
constexpr char kSyslogSocket[] = "/dev/log";
constexpr int kSyslogPriority = LOG_USER | LOG_ERR;

char syslogBuffer[sizeof reportBuffer + 512];

// False only when the socket is not of `type`: then the other type is tried.
// Nothing else is retried, and no daemon listening is no error.
bool SendToSyslog(int type, const char *data, size_t length) {
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return true;
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, kSyslogSocket, sizeof kSyslogSocket);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        int error = errno;
        close(fd);
        return error != EPROTOTYPE;
    }
    // A stream socket takes the terminating NUL as the end of the message.
    send(fd, data, type == SOCK_STREAM ? length + 1 : length, MSG_NOSIGNAL);
    close(fd);
    return true;
}

void WriteSystemLog(const ReportText &report) {
    ReportText text(syslogBuffer, sizeof syslogBuffer);
    text.Put("<");
    text.Decimal(kSyslogPriority);
    text.Put(">");
    text.Put(QKProgramName());
    text.Put("[");
    text.Decimal(getpid());
    text.Put("]: ");
    text.Put(report.Data());
    if (!SendToSyslog(SOCK_DGRAM, text.Data(), text.Length())) {
        SendToSyslog(SOCK_STREAM, text.Data(), text.Length());
    }
}

}  // namespace

namespace qk {

void CrashReport(UInt flags, UInt code, const siginfo_t *info, const void *ucontext,
                 const char *logPath) {
    if ((flags & QK_EXCEPTION_REPORT) == 0) return;
    const long self = syscall(SYS_gettid);
    long expected = 0;
    while (!reportOwner.compare_exchange_weak(expected, self, std::memory_order_acquire)) {
        if (expected == self) return;
        expected = 0;
        sched_yield();
    }
    ReportText text(reportBuffer, sizeof reportBuffer);
    Build(text, code, info, ucontext);
    WriteAll(STDERR_FILENO, text.Data(), text.Length());
    if ((flags & QK_EXCEPTION_REPORT_FILE) == QK_EXCEPTION_REPORT_FILE) {
        WriteLogFile(logPath, text);
    }
    WriteSystemLog(text);
    reportOwner.store(0, std::memory_order_release);
}

}  // namespace qk
