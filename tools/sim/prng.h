// The simulator's random numbers: splitmix64, so that a seed gives the same run on every
// machine and build (no floating point, no std::rand).
#pragma once

#include <cstdint>

class splitmix64 {
public:
    explicit splitmix64(uint64_t seed) : state_(seed) {}

    uint64_t next()
    {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

    // A number in [0, n); 0 when n is 0. The small bias of the modulo does not matter here.
    uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }

    // A number in [low, high].
    uint64_t between(uint64_t low, uint64_t high) { return low + below(high - low + 1); }

    // True with a probability of permille / 1000.
    bool chance(unsigned permille) { return below(1000) < permille; }

    // An independent generator for one part of the scenario, so that adding a draw in one
    // part does not shift the numbers of another.
    splitmix64 fork() { return splitmix64(next()); }

private:
    uint64_t state_;
};
