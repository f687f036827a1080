// What the frame tests share: a started library with no error pending, a
// fresh directory, threads started at once, waiting on other threads, and
// checks of the error state.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/digest.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

using Bytes = std::vector<UByte>;

// The library started under the name "frametest", the error state clear;
// death tests start a fresh process, as other threads may hold locks. The
// default message handler comes back after each test.
class FrameTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("frametest"), QKErrorClear(), GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    void TearDown() override { QKSetMessageHandler(nullptr); }
};

// The same with a fresh directory.
class FileTest : public FrameTest {
  protected:
    const char *Dir() const { return dir.Path().c_str(); }
    TempDir dir;
};

// The elements an array holds, as bytes.
template <class Array>
std::string Text(const Array &array) {
    return std::string((const char *)array.data, array.length * sizeof *array.data);
}

// The pending error is the library's general `code` with `text`.
#define EXPECT_ERROR(code, text)                                      \
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(code, QK_DOMAIN_GENERAL)); \
    EXPECT_STREQ(QKErrorMessage(), text)

// What a call returned and the error state it left: errno and the code of
// the thread's error; that of a call failing with the system's error `code`.
template <class T>
std::tuple<T, int, ULong> Left(T result) {
    int error = errno;
    return {result, error, QKErrorCode()};
}
#define OS_FAILURE(result, code) std::tuple(result, -1, QK_ERROR_CODE(code, QK_DOMAIN_OS))

// What a call returned, and errno after it.
template <class T>
std::tuple<T, int> WithErrno(T result) {
    return {result, errno};
}

// Spins until `done` holds; false when it did not within a generous limit.
template <class Predicate>
bool WaitFor(Predicate done) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::yield();
    }
    return true;
}

// Runs `body(i)` in `count` threads that start together once all exist, and
// joins them.
template <class Body>
void RunAtOnce(int count, Body body) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++) {
        threads.emplace_back([&, i] {
            for (ready++; ready < count;) continue;
            body(i);
        });
    }
    for (auto &thread : threads) thread.join();
}

// Reads fields of a lock or condition under its own mutex.
template <class Lock, class Reader>
auto Under(Lock *lock, Reader read) {
    MutexLock(&lock->lock);
    auto value = read(lock);
    MutexUnlock(&lock->lock);
    return value;
}

// Whether `count` threads sleep on `condition`.
inline bool Waiting(Condition *condition, UInt count = 1) {
    return Under(condition, [](Condition *c) { return c->waiters; }) == count;
}
