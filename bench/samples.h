/// Times of repeated work, and what describes them.

#ifndef ZENTAK_BENCH_SAMPLES_H
#define ZENTAK_BENCH_SAMPLES_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench {

using Samples = std::vector<double>;

/// How long each repetition of the work took, in microseconds.
template <typename Work>
Samples sample(int repetitions, const Work& work) {
    Samples samples;
    for (int i = 0; i < repetitions; ++i) {
        const auto start = std::chrono::steady_clock::now();
        work();
        samples.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    return samples;
}

struct Quartiles {
    double first;
    double median;
    double third;
};

/// `samples` isn't empty.
inline Quartiles quartiles(Samples samples) {
    std::sort(samples.begin(), samples.end());
    const auto at = [&](std::size_t quarter) { return samples[(samples.size() - 1) * quarter / 4]; };
    return {at(1), at(2), at(3)};
}

}  // namespace bench

#endif
