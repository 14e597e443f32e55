#include "md5.h"

#include <QtEndian>

#include <cstring>

namespace {

inline quint32 rotate(quint32 x, int bits) {
    return (x << bits) | (x >> (32 - bits));
}

// The rounds' functions. x is always the previous step's result; f and i are
// written so that their other half can be worked out before x is known.
inline quint32 f(quint32 x, quint32 y, quint32 z) {
    return z ^ (x & (y ^ z));
}
inline quint32 h(quint32 x, quint32 y, quint32 z) {
    return x ^ y ^ z;
}
inline quint32 i(quint32 x, quint32 y, quint32 z) {
    return y ^ (x | ~z);
}

} // namespace

// One step: a = b + ((a + F(b, c, d) + w + t) <<< s). The sum is ordered so
// that a + w + t does not wait for b.
#define MD5_STEP(fn, a, b, c, d, w, t, s) a = b + rotate((a + (w) + (t)) + fn(b, c, d), s)
// G(b, c, d) = (b & d) | (c & ~d) is the sum of two terms without common
// bits, and (c & ~d) does not depend on b: adding them one at a time lets the
// processor start on the second round's steps early. This, and reading the
// words straight from the caller's buffer, is where the speed over the usual
// code comes from.
#define MD5_STEP_G(a, b, c, d, w, t, s) a = b + rotate((a + (w) + (t) + (c & ~d)) + (b & d), s)

void Md5::hashBlocks(const uchar *data, qint64 blocks) {
    quint32 a = state[0], b = state[1], c = state[2], d = state[3];
    for (; blocks > 0; --blocks, data += 64) {
        quint32 w[16];
        for (int k = 0; k < 16; ++k)
            w[k] = qFromLittleEndian<quint32>(data + 4 * k);
        const quint32 a0 = a, b0 = b, c0 = c, d0 = d;

        MD5_STEP(f, a, b, c, d, w[0], 0xd76aa478, 7);
        MD5_STEP(f, d, a, b, c, w[1], 0xe8c7b756, 12);
        MD5_STEP(f, c, d, a, b, w[2], 0x242070db, 17);
        MD5_STEP(f, b, c, d, a, w[3], 0xc1bdceee, 22);
        MD5_STEP(f, a, b, c, d, w[4], 0xf57c0faf, 7);
        MD5_STEP(f, d, a, b, c, w[5], 0x4787c62a, 12);
        MD5_STEP(f, c, d, a, b, w[6], 0xa8304613, 17);
        MD5_STEP(f, b, c, d, a, w[7], 0xfd469501, 22);
        MD5_STEP(f, a, b, c, d, w[8], 0x698098d8, 7);
        MD5_STEP(f, d, a, b, c, w[9], 0x8b44f7af, 12);
        MD5_STEP(f, c, d, a, b, w[10], 0xffff5bb1, 17);
        MD5_STEP(f, b, c, d, a, w[11], 0x895cd7be, 22);
        MD5_STEP(f, a, b, c, d, w[12], 0x6b901122, 7);
        MD5_STEP(f, d, a, b, c, w[13], 0xfd987193, 12);
        MD5_STEP(f, c, d, a, b, w[14], 0xa679438e, 17);
        MD5_STEP(f, b, c, d, a, w[15], 0x49b40821, 22);

        MD5_STEP_G(a, b, c, d, w[1], 0xf61e2562, 5);
        MD5_STEP_G(d, a, b, c, w[6], 0xc040b340, 9);
        MD5_STEP_G(c, d, a, b, w[11], 0x265e5a51, 14);
        MD5_STEP_G(b, c, d, a, w[0], 0xe9b6c7aa, 20);
        MD5_STEP_G(a, b, c, d, w[5], 0xd62f105d, 5);
        MD5_STEP_G(d, a, b, c, w[10], 0x02441453, 9);
        MD5_STEP_G(c, d, a, b, w[15], 0xd8a1e681, 14);
        MD5_STEP_G(b, c, d, a, w[4], 0xe7d3fbc8, 20);
        MD5_STEP_G(a, b, c, d, w[9], 0x21e1cde6, 5);
        MD5_STEP_G(d, a, b, c, w[14], 0xc33707d6, 9);
        MD5_STEP_G(c, d, a, b, w[3], 0xf4d50d87, 14);
        MD5_STEP_G(b, c, d, a, w[8], 0x455a14ed, 20);
        MD5_STEP_G(a, b, c, d, w[13], 0xa9e3e905, 5);
        MD5_STEP_G(d, a, b, c, w[2], 0xfcefa3f8, 9);
        MD5_STEP_G(c, d, a, b, w[7], 0x676f02d9, 14);
        MD5_STEP_G(b, c, d, a, w[12], 0x8d2a4c8a, 20);

        MD5_STEP(h, a, b, c, d, w[5], 0xfffa3942, 4);
        MD5_STEP(h, d, a, b, c, w[8], 0x8771f681, 11);
        MD5_STEP(h, c, d, a, b, w[11], 0x6d9d6122, 16);
        MD5_STEP(h, b, c, d, a, w[14], 0xfde5380c, 23);
        MD5_STEP(h, a, b, c, d, w[1], 0xa4beea44, 4);
        MD5_STEP(h, d, a, b, c, w[4], 0x4bdecfa9, 11);
        MD5_STEP(h, c, d, a, b, w[7], 0xf6bb4b60, 16);
        MD5_STEP(h, b, c, d, a, w[10], 0xbebfbc70, 23);
        MD5_STEP(h, a, b, c, d, w[13], 0x289b7ec6, 4);
        MD5_STEP(h, d, a, b, c, w[0], 0xeaa127fa, 11);
        MD5_STEP(h, c, d, a, b, w[3], 0xd4ef3085, 16);
        MD5_STEP(h, b, c, d, a, w[6], 0x04881d05, 23);
        MD5_STEP(h, a, b, c, d, w[9], 0xd9d4d039, 4);
        MD5_STEP(h, d, a, b, c, w[12], 0xe6db99e5, 11);
        MD5_STEP(h, c, d, a, b, w[15], 0x1fa27cf8, 16);
        MD5_STEP(h, b, c, d, a, w[2], 0xc4ac5665, 23);

        MD5_STEP(i, a, b, c, d, w[0], 0xf4292244, 6);
        MD5_STEP(i, d, a, b, c, w[7], 0x432aff97, 10);
        MD5_STEP(i, c, d, a, b, w[14], 0xab9423a7, 15);
        MD5_STEP(i, b, c, d, a, w[5], 0xfc93a039, 21);
        MD5_STEP(i, a, b, c, d, w[12], 0x655b59c3, 6);
        MD5_STEP(i, d, a, b, c, w[3], 0x8f0ccc92, 10);
        MD5_STEP(i, c, d, a, b, w[10], 0xffeff47d, 15);
        MD5_STEP(i, b, c, d, a, w[1], 0x85845dd1, 21);
        MD5_STEP(i, a, b, c, d, w[8], 0x6fa87e4f, 6);
        MD5_STEP(i, d, a, b, c, w[15], 0xfe2ce6e0, 10);
        MD5_STEP(i, c, d, a, b, w[6], 0xa3014314, 15);
        MD5_STEP(i, b, c, d, a, w[13], 0x4e0811a1, 21);
        MD5_STEP(i, a, b, c, d, w[4], 0xf7537e82, 6);
        MD5_STEP(i, d, a, b, c, w[11], 0xbd3af235, 10);
        MD5_STEP(i, c, d, a, b, w[2], 0x2ad7d2bb, 15);
        MD5_STEP(i, b, c, d, a, w[9], 0xeb86d391, 21);

        a += a0;
        b += b0;
        c += c0;
        d += d0;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

void Md5::reset() {
    state[0] = 0x67452301;
    state[1] = 0xefcdab89;
    state[2] = 0x98badcfe;
    state[3] = 0x10325476;
    length = 0;
}

void Md5::addData(const char *data, qint64 size) {
    if (size <= 0)
        return;
    const auto *bytes = reinterpret_cast<const uchar *>(data);
    const int held = static_cast<int>(length % 64);
    length += static_cast<quint64>(size);
    if (held) {
        // Complete the block an earlier call began.
        const int take = static_cast<int>(qMin<qint64>(64 - held, size));
        std::memcpy(pending + held, bytes, static_cast<size_t>(take));
        bytes += take;
        size -= take;
        if (held + take < 64)
            return;
        hashBlocks(pending, 1);
    }
    hashBlocks(bytes, size / 64);
    std::memcpy(pending, bytes + size / 64 * 64, static_cast<size_t>(size % 64));
}

QByteArray Md5::result() const {
    // Finished on a copy: more data may still be added after a look at the
    // digest so far.
    Md5 last = *this;
    // A single 1 bit, zeros up to 8 bytes short of a block boundary, then the
    // message's length in bits, least significant byte first.
    const quint64 bits = length * 8;
    uchar tail[72] = {0x80};
    const int held = static_cast<int>(length % 64);
    const int padding = (held < 56 ? 56 : 120) - held;
    qToLittleEndian<quint64>(bits, tail + padding);
    last.addData(reinterpret_cast<const char *>(tail), padding + 8);
    QByteArray digest(16, Qt::Uninitialized);
    for (int k = 0; k < 4; ++k)
        qToLittleEndian<quint32>(last.state[k], digest.data() + 4 * k);
    return digest;
}
