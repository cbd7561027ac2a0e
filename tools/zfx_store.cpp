// zfx-store: writes the feature's stores the way its service does, and shows what a store holds.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "cli.hpp"
#include "dump.hpp"
#include "fabric.hpp"
#include "heap.hpp"
#include "load.hpp"
#include "store_guard.hpp"

using namespace zfxtool;

namespace {

const char kUsage[] =
    "usage: zfx-store demo DIR [--debug-dir DIR] [--replace]\n"
    "       zfx-store synth DIR [--zones N] [--members M] [--zonesets K] [--zones-per-set Z]\n"
    "                           [--topology T] [--afids A] [--groups G] [--pfcids P] [--seed S]\n"
    "                           [--debug-dir DIR] [--replace]\n"
    "       zfx-store load FILE DIR [--skip-foreign] [--debug-dir DIR] [--replace]\n"
    "       zfx-store dump DIR [--debug-dir DIR] [--raw]\n"
    "       zfx-store --help\n";

const char kHelp[] =
    "\n"
    "Writes the zfx feature's persistent stores as its service does, and shows them.\n"
    "A store directory DIR holds the configuration store DIR/zfx_startup_config; the debug\n"
    "store (the logging level) is DIR/zfx_debug, or under --debug-dir.\n"
    "\n"
    "commands:\n"
    "  demo   write a small fabric that holds every kind of record\n"
    "  synth  write a synthetic fabric of the given size; the same seed gives the same stores.\n"
    "         Defaults: 1000 zones of 8 members, 16 zonesets of 64 zones (zoneset 1 active),\n"
    "         32 topology entries, 32 AFID entries, 16 service groups, 128 persistent FCIDs\n"
    "  load   parse configuration text (as zfx-gen prints it) from FILE ('-': standard input)\n"
    "         and write the stores it describes; any error writes nothing. Also read: '!'\n"
    "         comments, blank lines, CRLF line ends, trailing blanks, block lines indented by\n"
    "         any blanks and tabs, repeated blanks, upper-case hexadecimal\n"
    "  dump   print every record of the stores, decoded; --raw prints keys and values in hex\n"
    "\n"
    "options:\n"
    "  --debug-dir DIR  where the debug store is (default: the store directory)\n"
    "  --replace        overwrite stores that already hold records (refused otherwise)\n"
    "  --skip-foreign   (load) skip the lines of other features and the indented lines under\n"
    "                   them, and say how many; without it they are errors\n"
    "\n"
    "exit status: 0 success, 1 the work failed (store, file or input), 2 bad command line\n";

int usage_error(const std::string &what) {
    std::fprintf(stderr, "zfx-store: %s\n%s", what.c_str(), kUsage);
    return kExitUsage;
}

int failure(const std::string &what) {
    std::fprintf(stderr, "zfx-store: %s\n", what.c_str());
    return kExitFailure;
}

struct Options {
    std::string debug_dir;
    bool replace = false;
    bool raw = false;
    LoadOptions load;
    SynthParams synth;
};

// Reads the options a command accepts; synth's counts only for synth.
bool read_options(Args &args, const std::string &command, Options &o, std::string &error) {
    struct Count {
        const char *name;
        uint64_t max;
        uint32_t SynthParams::*field;
    };
    static const Count counts[] = {
        {"--zones", 8191, &SynthParams::zones},         {"--members", 2047, &SynthParams::members},
        {"--zonesets", 2047, &SynthParams::zonesets},   {"--zones-per-set", 8191, &SynthParams::zones_per_set},
        {"--topology", 1000000, &SynthParams::topology}, {"--afids", 65535, &SynthParams::afids},
        {"--groups", 100000, &SynthParams::groups},     {"--pfcids", 1000000, &SynthParams::pfcids},
    };
    while (!args.done()) {
        const std::string opt = args.take();
        uint64_t n = 0;
        if (opt == "--debug-dir") {
            if (!args.value(opt, o.debug_dir, error)) return false;
        } else if (opt == "--replace" && command != "dump") {
            o.replace = true;
        } else if (opt == "--skip-foreign" && command == "load") {
            o.load.skip_foreign = true;
        } else if (opt == "--raw" && command == "dump") {
            o.raw = true;
        } else if (opt == "--seed" && command == "synth") {
            if (!args.number(opt, UINT64_MAX, o.synth.seed, error)) return false;
        } else {
            const Count *c = nullptr;
            for (const Count &each : counts)
                if (opt == each.name && command == "synth") c = &each;
            if (c == nullptr) {
                error = "unknown option for " + command + ": " + opt;
                return false;
            }
            if (!args.number(opt, c->max, n, error)) return false;
            o.synth.*(c->field) = uint32_t(n);
        }
    }
    return true;
}

int write(const Fabric &fabric, const std::string &dir, const Options &o) {
    const std::string error = write_fabric(fabric, dir, o.debug_dir.empty() ? dir : o.debug_dir, o.replace);
    return error.empty() ? kExitOk : failure(error);
}

int dump(const std::string &dir, const Options &o) {
    std::string error;
    if (dump_store(config_location(dir), o.raw, stdout, error) != StoreState::readable) return failure(error);
    // The debug store is optional: a directory without one shows the configuration store alone.
    const std::string debug = debug_location(o.debug_dir.empty() ? dir : o.debug_dir);
    const StoreState state = dump_store(debug, o.raw, stdout, error);
    if (state == StoreState::damaged || (state == StoreState::absent && !o.debug_dir.empty())) return failure(error);
    return kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return usage_error("a command is needed");
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::printf("%s%s", kUsage, kHelp);
        return kExitOk;
    }
    for (int i = 2; i < argc; ++i)
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("%s%s", kUsage, kHelp);
            return kExitOk;
        }
    if (command != "demo" && command != "synth" && command != "load" && command != "dump")
        return usage_error("unknown command: " + command);

    guard_store_reads("zfx-store");
    if (command != "dump") reserve_heap_in_huge_pages();
    Args args(argc, argv, 2);
    std::string file;
    if (command == "load") {
        if (args.done() || args.peek().rfind("--", 0) == 0) return usage_error("load needs FILE and DIR");
        file = args.take();
    }
    if (args.done() || args.peek().rfind("--", 0) == 0) return usage_error(command + " needs a store directory DIR");
    const std::string dir = args.take();
    Options options;
    std::string error;
    if (!read_options(args, command, options, error)) return usage_error(error);

    try {
        if (command == "demo") return write(demo_fabric(), dir, options);
        if (command == "synth") return write(synth_fabric(options.synth), dir, options);
        if (command == "dump") return dump(dir, options);
        Fabric fabric;
        size_t skipped = 0;
        if (!load_file(file, fabric, error, options.load, &skipped)) return failure(error);
        if (skipped != 0) std::fprintf(stderr, "zfx-store: skipped %zu line%s of other features\n", skipped, skipped == 1 ? "" : "s");
        return write(fabric, dir, options);
    } catch (const std::exception &e) {
        return failure(e.what());
    }
}
