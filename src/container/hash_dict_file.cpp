// HashDict in files: the file form (an 8-byte length, then the image) on a
// channel, and files that are mapped and read in place.
#include <string.h>

#include <string>

#include "container/hash_internal.h"

namespace qk::hash {

namespace {

// Reads exactly `size` bytes: 1, or 0 with the error state set.
int ReadExactly(Channel *channel, void *buffer, UInt size) {
    UInt count = 0;
    int code = ChannelReadBuf(channel, buffer, size, &count);
    if (code == 0) return 1;
    if (code == -1) QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "premature eof");
    return 0;
}

std::string FileName(const char *name, const char *extension) {
    std::string file = name;
    if (extension) {
        file += '.';
        file += extension;
    }
    return file;
}

void CloseQuietly(Channel *channel) {
    QKErrorSave();
    ChannelClose(channel);
    QKErrorRestore();
}

}  // namespace

}  // namespace qk::hash

using namespace qk::hash;

extern "C" {

QK_API int HashDictFileWrite(const HashDict *hdict, Channel *channel) {
    UByte length[HASHDICT_LENGTH_SIZE];
    StoreLE(length, hdict->h_imageSize, HASHDICT_LENGTH_SIZE);
    if (!ChannelWriteBuf(channel, length, HASHDICT_LENGTH_SIZE)) return 0;
    // Large images go in pieces: a single write takes a 32-bit size.
    const UByte *p = hdict->h_image;
    size_t left = hdict->h_imageSize;
    while (left > 0) {
        UInt piece = left > 0x40000000u ? 0x40000000u : (UInt)left;
        if (!ChannelWriteBuf(channel, p, piece)) return 0;
        p += piece;
        left -= piece;
    }
    return 1;
}

QK_API HashDict *HashDictFileRead(Channel *channel) {
    UByte lengthField[HASHDICT_LENGTH_SIZE];
    if (!ReadExactly(channel, lengthField, HASHDICT_LENGTH_SIZE)) return NULL;
    ULong length = LoadLE64(lengthField);
    if (length < kDictHeaderSize || length > (ULong)SIZE_MAX / 2) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "bad format: hash dictionary length");
        return NULL;
    }
    // The image grows as its bytes arrive, so that a false length fails at
    // the end of the data rather than in one huge allocation.
    UByte *image = NULL;
    size_t have = 0, capacity = 0;
    while (have < length) {
        if (have == capacity) {
            capacity = capacity ? capacity * 2 : 65536;
            if (capacity > length) capacity = (size_t)length;
            image = (UByte *)Allocate(capacity, image);
        }
        size_t want = capacity - have;
        UInt piece = want > 0x40000000u ? 0x40000000u : (UInt)want;
        if (!ReadExactly(channel, image + have, piece)) {
            UnAllocate(image);
            return NULL;
        }
        have += piece;
    }
    HashDict *hdict = DictNewHandle(DictKind::kOwned);
    if (!DictDecode(hdict, image, (size_t)length)) {
        UnAllocate(image);
        UnAllocate(hdict);
        return NULL;
    }
    return hdict;
}

QK_API int HashDictWrite(const HashDict *hdict, const char *directory, const char *name,
                         const char *extension) {
    std::string path = FileName(name, extension);
    if (directory) path = std::string(directory) + "/" + path;
    Channel *channel = ChannelNew(-1, -1);
    if (!ChannelOpenFile(channel, path.c_str(), "w")) {
        QKErrorRethrow("error opening %s", path.c_str());
        CloseQuietly(channel);
        return 0;
    }
    if (!HashDictFileWrite(hdict, channel) || !ChannelFlush(channel)) {
        QKErrorRethrow("error writing %s", path.c_str());
        CloseQuietly(channel);
        return 0;
    }
    if (!ChannelClose(channel)) {
        QKErrorRethrow("error closing %s", path.c_str());
        return 0;
    }
    return 1;
}

QK_API HashDict *HashDictOpen(const char *directory, const char *name, const char *extension) {
    std::string file = FileName(name, extension);
    size_t size = 0;
    int empty = 0;
    void *view = FileMapRead(directory, file.c_str(), &size, &empty);
    if (view == NULL) {
        if (empty) QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "bad format: empty file");
        QKErrorRethrow("error opening %s", file.c_str());
        return NULL;
    }
    HashDict *hdict = DictNewHandle(DictKind::kMapped);
    if (!DictDecodeFileForm(hdict, (const UByte *)view, size)) {
        QKErrorRethrow("error reading %s", file.c_str());
        QKErrorSave();
        FileUnmap(view);
        QKErrorRestore();
        UnAllocate(hdict);
        return NULL;
    }
    hdict->h_file = view;
    return hdict;
}

QK_API void HashDictClose(HashDict *hdict) {
    qkassert(hdict->h_file != NULL);
    qkassert(!hdict->h_created);
    FileUnmap(hdict->h_file);
    UnAllocate(hdict);
}

}  // extern "C"
