// Drives the default platform library for its test: `platform_probe levels|threads|report`.
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ovra_platform/platform.h"

namespace {

void LogEveryLevel()
{
    for (int level : {0, 1, 2, 3, 16}) {
        if (CheckLogLevel(60, level) == 1) {
            DlogInner(60, level, "[probe:%d][TEST][Tid:%d]\"level %d\"\n", 1, mmGetTid(), level);
        }
    }
}

void LogFromThreads()
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            std::string payload(300, static_cast<char>('a' + t));
            for (int i = 0; i < 500; ++i) {
                DlogInner(60, 3, "thread %d line %d %s\n", t, i, payload.c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

int Report()
{
    ErrorManager &manager = ErrorManager::GetInstance();
    int first = manager.ReportErrMessage("E1", {{"reason", "bank offline"}, {"op", "Add"}});
    int second = manager.ReportErrMessage("EC0010", {{"result", "two\nlines"}});
    for (const ErrorManager::Report &report : manager.GetReports()) {
        printf("%s", report.errCode.c_str());
        for (const auto &entry : report.args) {
            printf(" %s=%s", entry.first.c_str(), entry.second.c_str());
        }
        printf("\n");
    }
    manager.ClearReports();
    printf("answers %d %d, left %zu, tid %s\n", first, second, manager.GetReports().size(),
           mmGetTid() > 0 ? "positive" : "missing");
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "levels") {
        LogEveryLevel();
    } else if (mode == "threads") {
        LogFromThreads();
    } else if (mode == "report") {
        return Report();
    } else {
        fprintf(stderr, "usage: %s levels|threads|report\n", argv[0]);
        return 2;
    }
    return 0;
}
