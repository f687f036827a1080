// Asynchronous transfers on raw files. A transfer is queued to a small pool
// of library threads that do the positioned read or write; it is finished
// when a worker has recorded its result, and finished transfers stay so until
// deleted, as a signalled manual-reset event would. Transfers end in any
// order; a wait gives the lowest index among those finished.
//
// The pool grows on demand up to kMaxWorkers threads, which then live as
// long as the process. Its state is never destroyed, so that the end of the
// process cannot pull it from under a worker.
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "frame/file_internal.h"
#include "qk/memory.h"

struct QKFileAsyncIO {
    QKFile file;
    void *buffer;
    ULong offset;
    UInt size;
    bool write;
    // Under the pool's mutex:
    bool finished;
    UInt moved;
    int error;  // errno of a failed transfer, 0 on success
    QKFileAsyncIO *next;
};

namespace {

constexpr UInt kMaxWorkers = 4;

struct TransferPool {
    std::mutex mutex;
    std::condition_variable work;      // workers wait for transfers
    std::condition_variable finished;  // waiters wait for any transfer to finish
    QKFileAsyncIO *head = nullptr;
    QKFileAsyncIO *tail = nullptr;
    UInt workers = 0;
    UInt idle = 0;
};

TransferPool &GetPool() {
    static TransferPool *pool = new TransferPool();
    return *pool;
}

// The transfer itself, repeated until all is moved, the end of the file or a
// failure. Returns the errno of a failure, 0 otherwise.
int Transfer(QKFile file, void *buffer, ULong offset, UInt size, bool write, UInt *moved) {
    UInt done = 0;
    while (done < size) {
        char *at = (char *)buffer + done;
        off_t position = (off_t)(offset + done);
        ssize_t n = write ? pwrite(file, at, size - done, position)
                          : pread(file, at, size - done, position);
        if (n < 0) {
            if (errno == EINTR) continue;
            *moved = done;
            return errno;
        }
        if (n == 0) break;
        done += (UInt)n;
    }
    *moved = done;
    return 0;
}

UInt Worker(void *) {
    ThreadSetName("file transfers");
    TransferPool &pool = GetPool();
    std::unique_lock<std::mutex> hold(pool.mutex);
    for (;;) {
        while (pool.head == nullptr) {
            pool.idle++;
            pool.work.wait(hold);
            pool.idle--;
        }
        QKFileAsyncIO *io = pool.head;
        pool.head = io->next;
        if (pool.head == nullptr) pool.tail = nullptr;
        hold.unlock();
        UInt moved = 0;
        int error = Transfer(io->file, io->buffer, io->offset, io->size, io->write, &moved);
        hold.lock();
        io->moved = moved;
        io->error = error;
        io->finished = true;
        pool.finished.notify_all();
    }
    return 0;
}

void Enqueue(QKFileAsyncIO *io) {
    TransferPool &pool = GetPool();
    bool start = false;
    {
        std::lock_guard<std::mutex> hold(pool.mutex);
        if (pool.tail != nullptr)
            pool.tail->next = io;
        else
            pool.head = io;
        pool.tail = io;
        if (pool.idle == 0 && pool.workers < kMaxWorkers) {
            pool.workers++;
            start = true;
        } else {
            pool.work.notify_one();
        }
    }
    if (start) ThreadCreateDetached(Worker, nullptr, 0);
}

Int Start(QKFile file, ULong offset, void *buffer, UInt size, bool write, QKFileAsyncIO **request) {
    if (offset > (ULong)INT64_MAX - size) {
        qk::SetSystemError(EINVAL);
        return -1;
    }
    if (request == nullptr) {
        UInt moved = 0;
        int error = Transfer(file, buffer, offset, size, write, &moved);
        if (error != 0) {
            qk::SetSystemError(error);
            return -1;
        }
        return (Int)moved;
    }
    QKFileAsyncIO *io = AllocateZero(QKFileAsyncIO);
    io->file = file;
    io->buffer = buffer;
    io->offset = offset;
    io->size = size;
    io->write = write;
    *request = io;
    Enqueue(io);
    return 0;
}

}  // namespace

extern "C" {

QK_API Int QKFileReadData(QKFile file, ULong offset, void *buffer, UInt size,
                          QKFileAsyncIO **request) {
    return Start(file, offset, buffer, size, false, request);
}

QK_API Int QKFileWriteData(QKFile file, ULong offset, const void *buffer, UInt size,
                           QKFileAsyncIO **request) {
    return Start(file, offset, const_cast<void *>(buffer), size, true, request);
}

QK_API Int QKFileWaitAsyncIO(QKFileAsyncIO *const *requests, UInt count, UInt *bytes) {
    qkassert(count > 0);
    TransferPool &pool = GetPool();
    std::unique_lock<std::mutex> hold(pool.mutex);
    for (;;) {
        for (UInt i = 0; i < count; i++) {
            const QKFileAsyncIO *io = requests[i];
            if (!io->finished) continue;
            if (io->error != 0) {
                qk::SetSystemError(io->error);
                return -1;
            }
            if (bytes != nullptr) *bytes = io->moved;
            return (Int)i;
        }
        pool.finished.wait(hold);
    }
}

QK_API void QKFileDeleteAsyncIO(QKFileAsyncIO *request) {
    if (request == nullptr) return;
    TransferPool &pool = GetPool();
    {
        std::unique_lock<std::mutex> hold(pool.mutex);
        pool.finished.wait(hold, [request] { return request->finished; });
    }
    UnAllocate(request);
}

}  // extern "C"
