// INI files, side by side in one run:
//  - reading a 10 MB file (10,000 sections of 20 keys, with comments): CIniFile::Content next to
//    inih (parse with a handler that only counts), SimpleIni (LoadFile), a plain std::getline
//    loop that builds nothing, and the line-by-line reference implementation of the tests;
//  - GetValue and SetValue on a 1 MB file, next to inih (GetValue only: it cannot write),
//    SimpleIni (load, get or set, save) and the reference.
// Files go to $QW_BENCH_DIR, or the system's temporary folder. SetValue saves crash-safely, which
// includes flushing the file to disk; the peers do not flush, so on a real disk that flush is part
// of what the SetValue numbers compare. The program first checks that all sides read the same
// values.
#include <benchmark/benchmark.h>
#include <ini.h>

#include <SimpleIni.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "ini/ini_reference.h"
#include "quelworks/ini/ini_file.h"

namespace {

namespace fs = std::filesystem;

fs::path benchDir() {
    const char* dir = std::getenv("QW_BENCH_DIR");
    fs::path base = dir != nullptr ? fs::path(dir) : fs::temp_directory_path();
    fs::path path = base / "qw-ini-bench";
    fs::create_directories(path);
    return path;
}

// sections × 20 keys; every section has a comment block, every fifth key a comment line.
std::string makeIni(int sections) {
    std::string text;
    char line[160];
    for (int s = 0; s < sections; ++s) {
        std::snprintf(line, sizeof line, "; settings of unit %d\n; written by the bench\n", s);
        text += line;
        std::snprintf(line, sizeof line, "[unit_%05d]\n", s);
        text += line;
        for (int k = 0; k < 20; ++k) {
            if (k % 5 == 0) {
                std::snprintf(line, sizeof line, "# key %d of unit %d\n", k, s);
                text += line;
            }
            std::snprintf(line, sizeof line, "key_%02d=value %d.%d with some longer text\n", k, s,
                          k);
            text += line;
        }
        text += "\n";
    }
    return text;
}

std::string writeIni(const std::string& name, int sections) {
    std::string path = (benchDir() / name).string();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << makeIni(sections);
    return path;
}

const std::string& bigFile() {
    static const std::string path = writeIni("big.ini", 10000);
    return path;
}

const std::string& mediumFile() {
    static const std::string path = writeIni("medium.ini", 1000);
    return path;
}

std::string copyOf(const std::string& path, const std::string& name) {
    std::string to = (benchDir() / name).string();
    fs::copy_file(path, to, fs::copy_options::overwrite_existing);
    return to;
}

std::int64_t fileSize(const std::string& path) {
    return static_cast<std::int64_t>(fs::file_size(path));
}

const char* const kSection = "unit_00500";
const char* const kKey = "key_10";

// ---- inih handlers

int countHandler(void* user, const char*, const char*, const char*) {
    ++*static_cast<long*>(user);
    return 1;
}

struct Lookup {
    const char* section;
    const char* key;
    std::string value;
    bool found = false;
};

int lookupHandler(void* user, const char* section, const char* name, const char* value) {
    auto* l = static_cast<Lookup*>(user);
    if (!l->found && std::strcmp(section, l->section) == 0 && std::strcmp(name, l->key) == 0) {
        l->value = value;
        l->found = true;
    }
    return 1;
}

std::string inihValue(const std::string& path) {
    Lookup l{kSection, kKey, std::string()};
    ini_parse(path.c_str(), lookupHandler, &l);
    return l.value;
}

std::string simpleIniValue(const std::string& path) {
    CSimpleIniA ini;
    if (ini.LoadFile(path.c_str()) < 0) return std::string();
    const char* v = ini.GetValue(kSection, kKey, "");
    return v;
}

// ---- reading the 10 MB file

void BM_Read10MB_quelworks_Content(benchmark::State& state) {
    const std::string& path = bigFile();
    for (auto _ : state) {
        std::string text = CIniFile::Content(path);
        benchmark::DoNotOptimize(text.size());
    }
    state.SetBytesProcessed(state.iterations() * fileSize(path));
}

void BM_Read10MB_inih(benchmark::State& state) {
    const std::string& path = bigFile();
    for (auto _ : state) {
        long count = 0;
        ini_parse(path.c_str(), countHandler, &count);
        benchmark::DoNotOptimize(count);
    }
    state.SetBytesProcessed(state.iterations() * fileSize(path));
}

void BM_Read10MB_SimpleIni(benchmark::State& state) {
    const std::string& path = bigFile();
    for (auto _ : state) {
        CSimpleIniA ini;
        SI_Error rc = ini.LoadFile(path.c_str());
        benchmark::DoNotOptimize(rc);
    }
    state.SetBytesProcessed(state.iterations() * fileSize(path));
}

void BM_Read10MB_getline_only(benchmark::State& state) {
    const std::string& path = bigFile();
    for (auto _ : state) {
        std::ifstream in(path);
        std::string line;
        std::size_t total = 0;
        while (std::getline(in, line)) total += line.size();
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(state.iterations() * fileSize(path));
}

void BM_Read10MB_reference_Content(benchmark::State& state) {
    const std::string& path = bigFile();
    for (auto _ : state) {
        std::string text = ini_reference::content(path);
        benchmark::DoNotOptimize(text.size());
    }
    state.SetBytesProcessed(state.iterations() * fileSize(path));
}

// ---- GetValue on the 1 MB file

void BM_GetValue1MB_quelworks(benchmark::State& state) {
    const std::string& path = mediumFile();
    for (auto _ : state) {
        std::string v = CIniFile::GetValue(kKey, kSection, path);
        benchmark::DoNotOptimize(v.size());
    }
}

void BM_GetValue1MB_inih(benchmark::State& state) {
    const std::string& path = mediumFile();
    for (auto _ : state) {
        std::string v = inihValue(path);
        benchmark::DoNotOptimize(v.size());
    }
}

void BM_GetValue1MB_SimpleIni(benchmark::State& state) {
    const std::string& path = mediumFile();
    for (auto _ : state) {
        std::string v = simpleIniValue(path);
        benchmark::DoNotOptimize(v.size());
    }
}

void BM_GetValue1MB_reference(benchmark::State& state) {
    const std::string& path = mediumFile();
    for (auto _ : state) {
        std::string v = ini_reference::getValue(kKey, kSection, path);
        benchmark::DoNotOptimize(v.size());
    }
}

// ---- SetValue on the 1 MB file (each side on its own copy; the value alternates so every
// iteration really changes the file)

void BM_SetValue1MB_quelworks(benchmark::State& state) {
    const std::string path = copyOf(mediumFile(), "set-quelworks.ini");
    int i = 0;
    for (auto _ : state) {
        bool ok = CIniFile::SetValue(kKey, (i++ & 1) ? "odd" : "even", kSection, path);
        benchmark::DoNotOptimize(ok);
    }
}

void BM_SetValue1MB_SimpleIni(benchmark::State& state) {
    const std::string path = copyOf(mediumFile(), "set-simpleini.ini");
    int i = 0;
    for (auto _ : state) {
        CSimpleIniA ini;
        ini.LoadFile(path.c_str());
        ini.SetValue(kSection, kKey, (i++ & 1) ? "odd" : "even");
        SI_Error rc = ini.SaveFile(path.c_str());
        benchmark::DoNotOptimize(rc);
    }
}

void BM_SetValue1MB_reference(benchmark::State& state) {
    const std::string path = copyOf(mediumFile(), "set-reference.ini");
    int i = 0;
    for (auto _ : state) {
        bool ok = ini_reference::setValue(kKey, (i++ & 1) ? "odd" : "even", kSection, path);
        benchmark::DoNotOptimize(ok);
    }
}

BENCHMARK(BM_Read10MB_quelworks_Content)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read10MB_inih)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read10MB_SimpleIni)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read10MB_getline_only)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read10MB_reference_Content)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetValue1MB_quelworks)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetValue1MB_inih)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetValue1MB_SimpleIni)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetValue1MB_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SetValue1MB_quelworks)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SetValue1MB_SimpleIni)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SetValue1MB_reference)->Unit(benchmark::kMicrosecond);

// All sides must read the same thing before their speed means anything.
bool sidesAgree() {
    const std::string& big = bigFile();
    const std::string& medium = mediumFile();
    bool ok = true;
    if (CIniFile::Content(big) != ini_reference::content(big)) {
        std::fprintf(stderr, "Content differs from the reference\n");
        ok = false;
    }
    long count = 0;
    ini_parse(big.c_str(), countHandler, &count);
    CSimpleIniA ini;
    ini.LoadFile(big.c_str());
    CSimpleIniA::TNamesDepend sections;
    ini.GetAllSections(sections);
    long simpleCount = 0;
    for (const auto& s : sections) simpleCount += ini.GetSectionSize(s.pItem);
    if (count != 200000 || simpleCount != 200000) {
        std::fprintf(stderr, "key counts: inih %ld, SimpleIni %ld\n", count, simpleCount);
        ok = false;
    }
    const std::string expected = "value 500.10 with some longer text";
    const std::string ours = CIniFile::GetValue(kKey, kSection, medium);
    if (ours != expected || inihValue(medium) != expected || simpleIniValue(medium) != expected ||
        ini_reference::getValue(kKey, kSection, medium) != expected) {
        std::fprintf(stderr, "GetValue results differ\n");
        ok = false;
    }
    std::fprintf(stderr, "files: 10 MB file %lld bytes, 1 MB file %lld bytes, in %s\n",
                 static_cast<long long>(fileSize(big)), static_cast<long long>(fileSize(medium)),
                 benchDir().string().c_str());
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (!sidesAgree()) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    fs::remove_all(benchDir());
    return 0;
}
