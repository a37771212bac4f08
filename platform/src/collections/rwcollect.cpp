#include "rwcollect.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>

namespace {

// The key of the string hash, chosen at random once per process: words 0-9 are the multipliers
// of short strings (the constant, the length, eight 32-bit chunks), 10 and 11 the key of longer ones.
struct cHashKey {
    uint64_t word[12];
};

cHashKey makeHashKey() {
    cHashKey key{};
    try {
        std::random_device device;
        for (uint64_t& w : key.word) w = uint64_t{device()} << 32 | device();
    } catch (...) {  // no random device: the clock and an address still differ between runs
    }
    uint64_t mix = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                   reinterpret_cast<uintptr_t>(&key);
    for (uint64_t& w : key.word) {
        mix = mix * 6364136223846793005u + 1442695040888963407u;
        w ^= mix;
    }
    return key;
}

cHashKey const& hashKey() {
    static cHashKey const key = makeHashKey();
    return key;
}

uint64_t load64(unsigned char const* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

uint32_t load32(unsigned char const* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// Strings of up to 32 bytes: the bytes as up to eight 32-bit chunks x[i] (loads that may overlap,
// so that every byte lands in a chunk at a place fixed by the length), and the top 32 bits of
// (m0 + m1 * length + sum of m[i + 2] * x[i]) mod 2^64 with random multipliers m. This is
// strongly universal (Thorup's multiply-shift for vectors): two different strings get the same
// hash with probability 2^-32 over the choice of the key, whatever the strings.
uint32_t hashShort(uint64_t const* m, unsigned char const* p, size_t length) {
    uint64_t sum = m[0] + m[1] * length;
    if (length >= 16) {
        uint64_t const a = load64(p), b = load64(p + 8), c = load64(p + length - 16), d = load64(p + length - 8);
        sum += m[2] * (a & 0xffffffffu) + m[3] * (a >> 32) + m[4] * (b & 0xffffffffu) + m[5] * (b >> 32) +
               m[6] * (c & 0xffffffffu) + m[7] * (c >> 32) + m[8] * (d & 0xffffffffu) + m[9] * (d >> 32);
    } else if (length >= 8) {
        uint64_t const a = load64(p), b = load64(p + length - 8);
        sum += m[2] * (a & 0xffffffffu) + m[3] * (a >> 32) + m[4] * (b & 0xffffffffu) + m[5] * (b >> 32);
    } else if (length >= 4) {
        sum += m[2] * load32(p) + m[3] * load32(p + length - 4);
    } else if (length > 0) {
        sum += m[2] * (p[0] | uint32_t{p[length / 2]} << 8 | uint32_t{p[length - 1]} << 16);
    }
    return static_cast<uint32_t>(sum >> 32);
}

inline uint64_t rotl(uint64_t x, int bits) { return (x << bits) | (x >> (64 - bits)); }

struct cSipState {
    uint64_t v0, v1, v2, v3;
    void round() {
        v0 += v1;
        v1 = rotl(v1, 13) ^ v0;
        v0 = rotl(v0, 32);
        v2 += v3;
        v3 = rotl(v3, 16) ^ v2;
        v0 += v3;
        v3 = rotl(v3, 21) ^ v0;
        v2 += v1;
        v1 = rotl(v1, 17) ^ v2;
        v2 = rotl(v2, 32);
    }
    void absorb(uint64_t m) {
        v3 ^= m;
        round();
        v0 ^= m;
    }
};

// Longer strings: SipHash-1-3 under the key, folded to 32 bits.
uint32_t hashLong(cHashKey const& key, unsigned char const* p, size_t length) {
    uint64_t const k0 = key.word[10], k1 = key.word[11];
    cSipState s{k0 ^ 0x736f6d6570736575u, k1 ^ 0x646f72616e646f6du, k0 ^ 0x6c7967656e657261u, k1 ^ 0x7465646279746573u};
    size_t const whole = length & ~size_t{7};
    for (size_t i = 0; i < whole; i += 8) s.absorb(load64(p + i));
    uint64_t last = uint64_t{length} << 56;
    for (size_t i = whole; i < length; ++i) last |= uint64_t{p[i]} << (8 * (i - whole));
    s.absorb(last);
    s.v2 ^= 0xff;
    s.round();
    s.round();
    s.round();
    uint64_t const h = s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
    return static_cast<uint32_t>(h ^ (h >> 32));
}

}  // namespace

RWCollectable::~RWCollectable() = default;

RWClassID RWCollectable::isA() const { return __RWCOLLECTABLE; }

unsigned RWCollectable::hash() const {
    auto const address = reinterpret_cast<uintptr_t>(this);
    return static_cast<unsigned>(address ^ (address >> 16));
}

bool RWCollectable::isEqual(RWCollectable const* other) const { return this == other; }

int RWCollectable::compareTo(RWCollectable const* other) const {
    auto const a = reinterpret_cast<uintptr_t>(this), b = reinterpret_cast<uintptr_t>(other);
    return a == b ? 0 : (a < b ? -1 : 1);
}

RWCollectableString::~RWCollectableString() = default;

RWClassID RWCollectableString::isA() const { return __RWCOLLECTABLESTRING; }

unsigned RWCollectableString::hash() const { return hash(data(), length()); }

unsigned RWCollectableString::hash(char const* bytes, size_t length) {
    cHashKey const& key = hashKey();
    auto const* p = reinterpret_cast<unsigned char const*>(bytes);
    return length <= 32 ? hashShort(key.word, p, length) : hashLong(key, p, length);
}

bool RWCollectableString::isEqual(RWCollectable const* other) const {
    return other && other->isA() == __RWCOLLECTABLESTRING &&
           static_cast<RWCString const&>(*this) == static_cast<RWCollectableString const&>(*other);
}

int RWCollectableString::compareTo(RWCollectable const* other) const {
    if (!other || other->isA() != __RWCOLLECTABLESTRING) return RWCollectable::compareTo(other);
    return RWCString::compareTo(static_cast<RWCollectableString const&>(*other));
}

RWCollectableInt::~RWCollectableInt() = default;

RWClassID RWCollectableInt::isA() const { return __RWCOLLECTABLEINT; }

unsigned RWCollectableInt::hash() const { return static_cast<unsigned>(mValue); }

bool RWCollectableInt::isEqual(RWCollectable const* other) const {
    return other && other->isA() == __RWCOLLECTABLEINT && static_cast<RWCollectableInt const*>(other)->mValue == mValue;
}

int RWCollectableInt::compareTo(RWCollectable const* other) const {
    if (!other || other->isA() != __RWCOLLECTABLEINT) return RWCollectable::compareTo(other);
    int const v = static_cast<RWCollectableInt const*>(other)->mValue;
    return mValue == v ? 0 : (mValue < v ? -1 : 1);
}
