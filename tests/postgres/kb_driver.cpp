// A client of libovra_kb.so for the PostgreSQL bank tests: it calls the library through its public header
// only, and reports every status with the error report (code and message) that the library made for it.
//
//   kb_driver session
//       Reads one command per line from standard input, fields separated by tabs, and answers each with
//       lines ending in "end". Fields escape backslash, tab and newline as \\, \t and \n.
//         init SOC CORES BANK          write OP KEY KNOWLEDGE FLAG     delete OP KEY FLAG
//         search OP TYPE KEY (TYPE "-": no search_type)              finalize
//       Answer: "status N CODE MESSAGE", then for a search one "row SOC CORES OP KEY KNOWLEDGE" per row.
//
//   kb_driver writer --bank B --id ID --count N [--shared S] [--durable-every K] [--log FILE]
//                    [--stop-file F] [--pause-us U] [--wait-go]
//       Initialises, prints "ready", optionally waits for a line on standard input, then writes N records.
//       Write i goes to "shared-<i/2>" when i is even and i/2 < S, else to "<ID>-<i>"; its knowledge is
//       "<ID>:<i>"; it is durable (flag 1) when K > 0 and i % K == K - 1. Each write is logged as it returns:
//         ok   I KEY KNOWLEDGE FLAG
//         fail I KEY KNOWLEDGE FLAG STATUS CODE MESSAGE
//       Failures do not stop the writer. It stops early once the stop file exists, then finalises and
//       prints "done WRITES FAILURES".
//
//   kb_driver threads BANK THREADS COUNT
//       Initialises once, then THREADS native threads at once each write COUNT records "t<T>-<i>" (every
//       tenth durable), read each back with an exact search, and finally read their own records with a prefix
//       search. Prints one "mismatch ..." line per wrong answer, then "threads ROWS" with the number of rows
//       an "all" search over op type "*" finds, and exits 0 only when every call succeeded and matched.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"
#include "ovra_platform/platform.h"

namespace {

const char *const kSoc = "soc-a1";
const char *const kCores = "32";

std::string Escape(const std::string &text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string Unescape(const std::string &text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            const char next = text[++i];
            out += next == 't' ? '\t' : next == 'n' ? '\n' : next;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::vector<std::string> Fields(const std::string &line)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    while (true) {
        const std::size_t tab = line.find('\t', start);
        fields.push_back(Unescape(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start)));
        if (tab == std::string::npos) {
            return fields;
        }
        start = tab + 1;
    }
}

// The status of one library call, with the report the library added for it (if any).
struct Outcome {
    std::uint32_t status = 0;
    std::string code;
    std::string message;

    std::string Line() const
    {
        return "status\t" + std::to_string(status) + "\t" + Escape(code) + "\t" + Escape(message);
    }
};

template <typename Call>
Outcome Run(Call &&call)
{
    const std::size_t before = ErrorManager::GetInstance().GetReports().size();
    Outcome outcome;
    outcome.status = call();
    const std::vector<ErrorManager::Report> reports = ErrorManager::GetInstance().GetReports();
    if (outcome.status != OvraKb::OVRA_KB_SUCCESS && reports.size() > before) {
        outcome.code = reports.back().errCode;
        const auto found = reports.back().args.find("message");
        outcome.message = found == reports.back().args.end() ? "" : found->second;
    }
    return outcome;
}

Outcome Init(const std::string &soc, const std::string &cores, const std::string &bank)
{
    const OvraKb::StrMap sys = {{"soc_version", soc}, {"core_num", cores}};
    const OvraKb::StrMap load = {{"op_bank_path", bank}};
    return Run([&] { return OvraKbInit(sys, load); });
}

Outcome Write(const std::string &op, const std::string &key, const std::string &knowledge, bool flag)
{
    const OvraKb::StrMap config = {{"op_type", op}};
    return Run([&] { return OvraKbWrite(key, knowledge, config, flag); });
}

int Session()
{
    std::string line;
    while (std::getline(std::cin, line)) {
        const std::vector<std::string> f = Fields(line);
        const std::string &command = f[0];
        std::vector<OvraKb::StrMap> rows;
        Outcome outcome;
        if (command == "init" && f.size() == 4) {
            outcome = Init(f[1], f[2], f[3]);
        } else if (command == "write" && f.size() == 5) {
            outcome = Write(f[1], f[2], f[3], f[4] == "1");
        } else if (command == "delete" && f.size() == 4) {
            const OvraKb::StrMap config = {{"op_type", f[1]}};
            const bool flag = f[3] == "1";
            outcome = Run([&] { return OvraKbDelete(f[2], config, flag); });
        } else if (command == "search" && f.size() == 4) {
            OvraKb::StrMap config = {{"op_type", f[1]}};
            if (f[2] != "-") {
                config["search_type"] = f[2];
            }
            outcome = Run([&] { return OvraKbSearch(f[3], config, rows); });
        } else if (command == "finalize" && f.size() == 1) {
            outcome = Run([] { return OvraKbFinalize(); });
        } else {
            std::cout << "bad command\t" << Escape(line) << "\nend" << std::endl;
            continue;
        }
        std::cout << outcome.Line() << "\n";
        for (const OvraKb::StrMap &row : rows) {
            std::cout << "row";
            for (const char *field : {"soc_version", "core_num", "op_type", "keyword", "knowledge"}) {
                const auto found = row.find(field);
                std::cout << "\t" << Escape(found == row.end() ? "" : found->second);
            }
            std::cout << "\n";
        }
        std::cout << "end" << std::endl;
    }
    return 0;
}

struct WriterOptions {
    std::string bank, id, log, stopFile;
    long count = 0, shared = 0, durableEvery = 0, pauseUs = 0;
    bool waitGo = false;
};

bool ParseWriter(int argc, char **argv, WriterOptions &o)
{
    for (int i = 2; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--wait-go") {
            o.waitGo = true;
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        const std::string value = argv[++i];
        if (name == "--bank")
            o.bank = value;
        else if (name == "--id")
            o.id = value;
        else if (name == "--log")
            o.log = value;
        else if (name == "--stop-file")
            o.stopFile = value;
        else if (name == "--count")
            o.count = std::atol(value.c_str());
        else if (name == "--shared")
            o.shared = std::atol(value.c_str());
        else if (name == "--durable-every")
            o.durableEvery = std::atol(value.c_str());
        else if (name == "--pause-us")
            o.pauseUs = std::atol(value.c_str());
        else
            return false;
    }
    return !o.bank.empty() && !o.id.empty() && o.count > 0;
}

int Writer(const WriterOptions &o)
{
    FILE *log = o.log.empty() ? stdout : std::fopen(o.log.c_str(), "w");
    if (log == nullptr) {
        std::perror("kb_driver: cannot open the log");
        return 2;
    }
    const Outcome opened = Init(kSoc, kCores, o.bank);
    if (opened.status != 0) {
        std::printf("init failed\t%s\n", opened.Line().c_str());
        return 3;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    if (o.waitGo) {
        std::string go;
        std::getline(std::cin, go);
    }
    long writes = 0, failures = 0;
    for (long i = 0; i < o.count; ++i) {
        if (!o.stopFile.empty() && access(o.stopFile.c_str(), F_OK) == 0) {
            break;
        }
        const bool shared = i % 2 == 0 && i / 2 < o.shared;
        const std::string key = shared ? "shared-" + std::to_string(i / 2) : o.id + "-" + std::to_string(i);
        const std::string knowledge = o.id + ":" + std::to_string(i);
        const bool flag = o.durableEvery > 0 && i % o.durableEvery == o.durableEvery - 1;
        const Outcome written = Write("Farm", key, knowledge, flag);
        ++writes;
        if (written.status == 0) {
            std::fprintf(log, "ok\t%ld\t%s\t%s\t%d\n", i, key.c_str(), knowledge.c_str(), flag ? 1 : 0);
        } else {
            ++failures;
            std::fprintf(log, "fail\t%ld\t%s\t%s\t%d\t%s\n", i, key.c_str(), knowledge.c_str(), flag ? 1 : 0,
                         written.Line().substr(7).c_str());
        }
        std::fflush(log);
        if (o.pauseUs > 0) {
            const timespec pause = {o.pauseUs / 1000000, (o.pauseUs % 1000000) * 1000};
            nanosleep(&pause, nullptr);
        }
    }
    const Outcome closed = Run([] { return OvraKbFinalize(); });
    if (log != stdout) {
        std::fclose(log);
    }
    std::printf("done\t%ld\t%ld\t%s\n", writes, failures, closed.Line().c_str());
    return closed.status == 0 ? 0 : 4;
}

int Threads(const std::string &bank, int threads, int count)
{
    const Outcome opened = Init(kSoc, kCores, bank);
    if (opened.status != 0) {
        std::printf("init failed\t%s\n", opened.Line().c_str());
        return 3;
    }
    std::mutex outputLock;
    int problems = 0;
    auto report = [&](const std::string &what) {
        std::lock_guard<std::mutex> hold(outputLock);
        ++problems;
        std::printf("mismatch\t%s\n", what.c_str());
    };
    auto work = [&](int thread) {
        const OvraKb::StrMap config = {{"op_type", "Threads"}};
        const std::string prefix = "t" + std::to_string(thread) + "-";
        for (int i = 0; i < count; ++i) {
            char key[64];
            std::snprintf(key, sizeof key, "%s%05d", prefix.c_str(), i);
            const Outcome written = Write("Threads", key, std::string("v:") + key, i % 10 == 9);
            std::vector<OvraKb::StrMap> rows;
            const Outcome found = Run([&] { return OvraKbSearch(key, config, rows); });
            if (written.status != 0 || found.status != 0 || rows.size() != 1 ||
                rows[0]["knowledge"] != std::string("v:") + key) {
                report(std::string(key) + "\twrite " + written.Line() + "\tsearch " + found.Line());
            }
        }
        std::vector<OvraKb::StrMap> rows;
        OvraKb::StrMap prefixConfig = config;
        prefixConfig["search_type"] = "prefix";
        const Outcome listed = Run([&] { return OvraKbSearch(prefix, prefixConfig, rows); });
        if (listed.status != 0 || rows.size() != static_cast<std::size_t>(count)) {
            report(prefix + "\tprefix search found " + std::to_string(rows.size()) + "\t" + listed.Line());
        }
    };
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back(work, t);
    }
    for (std::thread &thread : pool) {
        thread.join();
    }
    std::vector<OvraKb::StrMap> all;
    const OvraKb::StrMap everything = {{"op_type", "*"}, {"search_type", "all"}};
    const Outcome listed = Run([&] { return OvraKbSearch("", everything, all); });
    const Outcome closed = Run([] { return OvraKbFinalize(); });
    std::printf("threads\t%zu\t%s\t%s\n", all.size(), listed.Line().c_str(), closed.Line().c_str());
    return problems == 0 && listed.status == 0 && closed.status == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "session" && argc == 2) {
        return Session();
    }
    if (mode == "threads" && argc == 5) {
        return Threads(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    }
    WriterOptions options;
    if (mode == "writer" && ParseWriter(argc, argv, options)) {
        return Writer(options);
    }
    std::fprintf(stderr,
                 "usage: kb_driver session\n"
                 "       kb_driver writer --bank B --id ID --count N [--shared S] [--durable-every K] [--log FILE]\n"
                 "                        [--stop-file F] [--pause-us U] [--wait-go]\n"
                 "       kb_driver threads BANK THREADS COUNT\n");
    return 64;
}
