#include "kestro/core/uuid.h"

#include <pthread.h>
#include <sys/random.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kestro {
namespace {

// Bumped in a forked child so that no child hands out bytes its parent already used.
std::atomic<unsigned> gForkGeneration{0};
const int kAtForkRegistered =
    pthread_atfork(nullptr, nullptr, [] { gForkGeneration.fetch_add(1); });

void fillRandom(std::uint8_t* out, std::size_t n) {
    std::size_t got = 0;
    while (got < n) {
        const ssize_t r = getrandom(out + got, n - got, 0);
        if (r > 0) {
            got += static_cast<std::size_t>(r);
        } else if (r < 0 && errno != EINTR) {
            // Kernels without getrandom: read the same source through the device file.
            std::ifstream dev("/dev/urandom", std::ios::binary);
            dev.read(reinterpret_cast<char*>(out + got), static_cast<std::streamsize>(n - got));
            if (!dev) throw std::runtime_error("no source of random bytes");
            return;
        }
    }
}

struct RandomBlock {
    std::uint8_t bytes[512];
    std::size_t used = sizeof bytes;
    unsigned generation = 0;

    void take(std::uint8_t* out, std::size_t n) {
        const unsigned gen = gForkGeneration.load(std::memory_order_relaxed);
        if (used + n > sizeof bytes || generation != gen) {
            fillRandom(bytes, sizeof bytes);
            used = 0;
            generation = gen;
        }
        std::memcpy(out, bytes + used, n);
        // Bytes handed out are wiped from the block.
        std::memset(bytes + used, 0, n);
        used += n;
    }
};

thread_local RandomBlock tRandom;

}  // namespace

UUID UUID::random() {
    (void)kAtForkRegistered;
    UUID id;
    tRandom.take(id.bytes.data(), id.bytes.size());
    id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x40);  // version 4
    id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return id;
}

void UUID::writeTo(char out[36]) const {
    static constexpr char kHex[] = "0123456789ABCDEF";
    int o = 0;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out[o++] = '-';
        out[o++] = kHex[bytes[i] >> 4];
        out[o++] = kHex[bytes[i] & 0x0F];
    }
}

std::string UUID::string() const {
    std::string s(36, '\0');
    writeTo(s.data());
    return s;
}

std::string newUUIDString() { return UUID::random().string(); }

}  // namespace kestro
