// Readers on other threads while one thread changes what they read: the
// shape of every test of a lock-free query or a shared lock against a swap.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace texprt_test {

struct ReadTally {
    int wrong = 0;  // reads whose answer no state of the writer explains
    int reads = 0;
};

// Runs Read (returning whether its answer was one the test allows) on
// `readers` threads for as long as Write(round) takes for `rounds` rounds.
template <typename ReadFn, typename WriteFn>
ReadTally ReadWhileWriting(int readers, int rounds, ReadFn &&Read, WriteFn &&Write) {
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0}, reads{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < readers; ++t)
        threads.emplace_back([&] {
            while (!stop) {
                if (!Read()) ++wrong;
                ++reads;
            }
        });
    for (int round = 0; round < rounds; ++round) Write(round);
    stop = true;
    for (auto &t : threads) t.join();
    return {wrong.load(), reads.load()};
}

}  // namespace texprt_test
