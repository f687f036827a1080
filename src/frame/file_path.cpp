// Paths: the joined and checked working path of every file call, the
// conversions between UTF-8 and UCS2 names, and the absolute path tests.
//
// The system takes UTF-8 bytes here, so a joined path is kept as UTF-8; it is
// still read back character by character, so that a path that could not be
// converted to UCS2 fails on every platform alike.
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame/file_internal.h"
#include "qk/memory.h"

namespace qk {

Int CheckUTF8(const char *text, size_t length) {
    const UByte *cursor = reinterpret_cast<const UByte *>(text);
    const UByte *end = cursor + length;
    Int c;
    while ((c = ReadUTF8(&cursor, end)) >= 0) {
    }
    return c;
}

Int FilePath::Finish() {
    ArrayEnsure(bytes_, bytes_.length + 1);
    bytes_.data[bytes_.length] = 0;
    return CheckUTF8(Get(), bytes_.length);
}

Int FilePath::Join(const char *directory, const char *name) {
    bytes_.length = 0;
    if (directory != nullptr) {
        ArrayAppend(bytes_, directory, strlen(directory));
        ArrayAdd(bytes_, '/');
    }
    ArrayAppend(bytes_, name, strlen(name));
    return Finish();
}

Int FilePath::JoinUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                       UInt nameLength) {
    bytes_.length = 0;
    if (directory != nullptr) {
        AppendUCS2AsUTF8(&bytes_, directory, directoryLength);
        ArrayAdd(bytes_, '/');
    }
    AppendUCS2AsUTF8(&bytes_, name, nameLength);
    return Finish();
}

void AppendUCS2AsUTF8(ByteArray *out, const UShort *units, UInt length) {
    ArrayEnsure(*out, out->length + (size_t)length * 3);
    UByte *p = out->data + out->length;
    for (UInt i = 0; i < length; i++) {
        UShort c = units[i];
        if (c < 0x80) {
            *p++ = (UByte)c;
        } else if (c < 0x800) {
            *p++ = (UByte)(0xC0 | (c >> 6));
            *p++ = (UByte)(0x80 | (c & 0x3F));
        } else {
            *p++ = (UByte)(0xE0 | (c >> 12));
            *p++ = (UByte)(0x80 | ((c >> 6) & 0x3F));
            *p++ = (UByte)(0x80 | (c & 0x3F));
        }
    }
    out->length = (UInt)(p - out->data);
}

void AppendUTF8AsUCS2(UShortArray *out, const char *text, size_t length) {
    const UByte *p = reinterpret_cast<const UByte *>(text);
    const UByte *end = p + length;
    ArrayEnsure(*out, out->length + length + 1);
    auto continuation = [&](size_t k) { return p + k < end && (p[k] & 0xC0) == 0x80; };
    while (p < end) {
        UInt c = p[0];
        size_t n = 1;
        if (c < 0x80) {
        } else if ((c & 0xE0) == 0xC0 && continuation(1)) {
            c = ((c & 0x1F) << 6) | (p[1] & 0x3F);
            n = 2;
            if (c < 0x80) c = 0xFFFD;
        } else if ((c & 0xF0) == 0xE0 && continuation(1) && continuation(2)) {
            c = ((c & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F);
            n = 3;
            if (c < 0x800) c = 0xFFFD;
        } else if ((c & 0xF8) == 0xF0 && continuation(1) && continuation(2) && continuation(3)) {
            c = 0xFFFD;  // above 0xFFFF
            n = 4;
        } else {
            c = 0xFFFD;
        }
        out->data[out->length++] = (UShort)c;
        p += n;
    }
    out->data[out->length] = 0;
}

void CloseKeepingError(int fd) {
    int saved = errno;
    int lastError = QKGetLastError();
    close(fd);
    QKSetLastError(lastError);
    errno = saved;
}

}  // namespace qk

namespace {

template <typename T>
bool IsSeparator(T c) {
    return c == '/' || c == '\\';
}

template <typename T>
bool IsAbsolute(const T *path, size_t length) {
    if (length >= 1 && path[0] == '/') return true;
    if (length >= 2 && IsSeparator(path[0]) && IsSeparator(path[1])) return true;
    if (length >= 3 && ((path[0] >= 'a' && path[0] <= 'z') || (path[0] >= 'A' && path[0] <= 'Z')) &&
        path[1] == ':' && IsSeparator(path[2]))
        return true;
    return false;
}

// The current directory joined to `path`, with "." and empty components
// taken away and ".." taking away the component before it (never the root).
bool Resolve(const char *path, size_t length, std::string *result) {
    std::vector<char> cwd(512);
    while (getcwd(cwd.data(), cwd.size()) == nullptr) {
        if (errno != ERANGE) {
            QKSetLastErrorFromErrno();
            return false;
        }
        cwd.resize(cwd.size() * 2);
    }
    std::string joined = cwd.data();
    joined += '/';
    joined.append(path, length);

    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= joined.size()) {
        size_t slash = joined.find('/', start);
        if (slash == std::string::npos) slash = joined.size();
        std::string part = joined.substr(start, slash - start);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(std::move(part));
        }
        start = slash + 1;
    }
    result->clear();
    for (const std::string &part : parts) {
        *result += '/';
        *result += part;
    }
    if (result->empty()) result->push_back('/');
    return true;
}

// The least room PathMakeAbsolute leaves in its array, terminator included.
constexpr UInt kMinimumRoom = 261;

}  // namespace

extern "C" {

QK_API int PathIsAbsolute(const char *path) {
    return IsAbsolute(path, strlen(path));
}

QK_API int PathIsAbsoluteUCS2(const UShort *path, UInt length) {
    return IsAbsolute(path, length);
}

QK_API int PathMakeAbsolute(ByteArray *array, const char *path) {
    size_t length = strlen(path);
    std::string resolved;
    const char *source = path;
    if (!IsAbsolute(path, length)) {
        int saved = errno;
        if (!Resolve(path, length, &resolved)) return 0;
        errno = saved;
        source = resolved.data();
        length = resolved.size();
    }
    array->length = 0;
    ArrayEnsure(*array, length + 1 > kMinimumRoom ? length + 1 : kMinimumRoom);
    memcpy(array->data, source, length);
    array->data[length] = 0;
    array->length = (UInt)length;
    return 1;
}

QK_API int PathMakeAbsoluteUCS2(UShortArray *array, const UShort *path, UInt length) {
    array->length = 0;
    if (IsAbsolute(path, length)) {
        ArrayEnsure(*array, length + 1 > kMinimumRoom ? length + 1 : kMinimumRoom);
        if (length) memcpy(array->data, path, (size_t)length * sizeof(UShort));
        array->data[length] = 0;
        array->length = length;
        return 1;
    }
    ByteArray utf8{};
    qk::AppendUCS2AsUTF8(&utf8, path, length);
    std::string resolved;
    int saved = errno;
    bool ok = Resolve(reinterpret_cast<const char *>(utf8.data), utf8.length, &resolved);
    ArrayFree(utf8);
    if (!ok) return 0;
    errno = saved;
    qk::AppendUTF8AsUCS2(array, resolved.data(), resolved.size());
    ArrayEnsure(*array, kMinimumRoom);
    return 1;
}

}  // extern "C"
