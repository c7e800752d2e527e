// history_load FOLDER: how many milliseconds it takes to load the history in FOLDER; the median of nine times.

#include "memory/HistoryStore.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

int main(int count, char** words) {
    if (count != 2)
        return 2;
    std::array<double, 9> taken{};
    for (double& milliseconds : taken) {
        const auto begin = std::chrono::steady_clock::now();
        const auto entries = velmora::HistoryStore(words[1], 1).load();
        milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
        if (entries.empty())
            return 1;
    }
    std::ranges::sort(taken);
    std::printf("%.1f\n", taken[taken.size() / 2]);
    return 0;
}
