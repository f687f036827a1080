// Compress: whole buffers through zlib's deflate and inflate. Each buffer is
// one complete zlib stream; the object keeps its zlib state between buffers
// and resets it for each, setting the preset dictionary again.
#include <string.h>
#include <zlib.h>

#include "qk/digest.h"
#include "qk/frame.h"
#include "qk/memory.h"

struct Compress {
    z_stream stream;
    bool deflating;
    ByteArray dictionary;
};

namespace {

// Output beyond this is refused: array lengths are 32-bit.
constexpr UInt kOutputLimit = 1u << 31;

// The least room given to a step of deflate or inflate.
constexpr UInt kStep = 4096;

void FailInit(Compress *compress, int result) {
    QKFatal("%s", compress->stream.msg ? compress->stream.msg : zError(result));
}

}  // namespace

Compress *CompressNew(Int level, const void *dictionary, UInt dictionarySize) {
    Compress *compress = AllocateZero(Compress);
    compress->deflating = level != COMPRESS_INFLATE;
    int result = compress->deflating ? deflateInit(&compress->stream, level)
                                     : inflateInit(&compress->stream);
    if (result != Z_OK) FailInit(compress, result);
    CompressSetDictionary(compress, dictionary, dictionarySize);
    return compress;
}

void CompressSetDictionary(Compress *compress, const void *dictionary, UInt size) {
    ArrayClear(compress->dictionary);
    ArrayAppend(compress->dictionary, static_cast<const UByte *>(dictionary), size);
}

void CompressDelete(Compress *compress) {
    if (!compress) return;
    if (compress->deflating) {
        deflateEnd(&compress->stream);
    } else {
        inflateEnd(&compress->stream);
    }
    ArrayFree(compress->dictionary);
    UnAllocate(compress);
}

int CompressDeflate(Compress *compress, const void *data, UInt size, ByteArray *out) {
    qkassert(compress->deflating);
    z_stream &stream = compress->stream;
    deflateReset(&stream);
    if (compress->dictionary.length > 0) {
        int result =
            deflateSetDictionary(&stream, compress->dictionary.data, compress->dictionary.length);
        qkassert(result == Z_OK);
    }
    stream.next_in = static_cast<Bytef *>(const_cast<void *>(data));
    stream.avail_in = size;
    const UInt start = out->length;
    // The bound lets one call finish; the loop is there should it not.
    ULong room = deflateBound(&stream, size);
    for (;;) {
        if ((ULong)out->length + room > kOutputLimit) {
            out->length = start;
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "bad argument(s)");
            return 0;
        }
        ArrayEnsure(*out, out->length + (UInt)room);
        stream.next_out = out->data + out->length;
        stream.avail_out = out->capacity - out->length;
        int result = deflate(&stream, Z_FINISH);
        out->length = (UInt)(stream.next_out - out->data);
        if (result == Z_STREAM_END) return 1;
        qkassert(result == Z_OK || result == Z_BUF_ERROR);
        room = kStep;
    }
}

int CompressInflate(Compress *compress, const void *data, UInt size, ByteArray *out) {
    qkassert(compress->deflating == false);
    z_stream &stream = compress->stream;
    inflateReset(&stream);
    stream.next_in = static_cast<Bytef *>(const_cast<void *>(data));
    stream.avail_in = size;
    const UInt start = out->length;
    Int code = QK_ERR_FORMAT;
    const char *failure = NULL;
    for (;;) {
        if (out->capacity - out->length < kStep) {
            if (out->length > kOutputLimit - kStep) {
                code = QK_ERR_INVALID;
                failure = "bad argument(s)";
                break;
            }
            ArrayEnsure(*out, out->length + kStep);
        }
        stream.next_out = out->data + out->length;
        stream.avail_out = out->capacity - out->length;
        int result = inflate(&stream, Z_NO_FLUSH);
        out->length = (UInt)(stream.next_out - out->data);
        if (result == Z_STREAM_END) {
            if (stream.avail_in != 0) failure = "trailing data after compressed stream";
            break;
        }
        if (result == Z_NEED_DICT) {
            if (compress->dictionary.length == 0) {
                failure = "preset dictionary missing";
                break;
            }
            if (inflateSetDictionary(&stream, compress->dictionary.data,
                                     compress->dictionary.length) != Z_OK) {
                failure = "preset dictionary mismatch";
                break;
            }
            continue;
        }
        if (result == Z_DATA_ERROR) {
            failure = stream.msg ? stream.msg : "invalid compressed data";
            break;
        }
        // No progress with room to write: the input ended inside the stream.
        if (result == Z_BUF_ERROR && stream.avail_in == 0) {
            failure = "premature eof";
            break;
        }
        qkassert(result == Z_OK || result == Z_BUF_ERROR);
    }
    if (!failure) return 1;
    out->length = start;
    QKErrorThrow(code, QK_DOMAIN_GENERAL, "%s", failure);
    return 0;
}
