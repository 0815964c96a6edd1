// SPDX-License-Identifier: MIT
//
// A thousand settings of mixed types, all changed since the last save: saved and loaded.
//
//     settings_bench --benchmark_enable_random_interleaving=true --benchmark_repetitions=9 \
//                    --benchmark_report_aggregates_only=true
//
// Every way of saving replaces its file so that a crash of the program at any moment leaves the old or the new one, and
// asks the system to put it on the medium as far as it has a call for that: the safe store, SQLite and the packed file
// do, QSettings has none. All files are in memory (/dev/shm), so that the medium's own time is out of the figures.
// Processor time, so that what else runs on the machine counts less. Besides, the checksum alone.
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "platform/crc32.h"
#include <QSettings>
#include <QVariant>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <vector>
#ifdef KAV_PEER_SQLITE
#include <sqlite3.h>
#endif
#ifdef KAV_PEER_ZLIB
#include <zlib.h>
#endif

namespace {

constexpr int groups = 50, per_group = 20; // 1000 settings

/// One of each of four types; what a plain program would keep in a struct.
struct Values {
    bool on;
    short level;
    int count;
    float ratio;
};
constexpr int per_values = 4, rows_of_values = groups * per_group / per_values;

Values values_of(int row, int generation) {
    return {(row + generation) % 2 == 0, static_cast<short>(row - generation % 1000), row * 1000 + generation,
            static_cast<float>(row) + static_cast<float>(generation % 1000) / 8};
}

/// The folder that all files are in.
class Folder {
public:
    Folder() {
        std::string pattern = "/dev/shm/settings_bench-XXXXXX";
        path = mkdtemp(pattern.data());
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
};

std::string file(const char* name) {
    static const Folder folder;
    return folder.path + "/" + name;
}

double thread_seconds() {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// Time `work` alone, which tells whether it succeeded; `prepare` comes before it each time.
template <class Prepare, class Work>
void measure(benchmark::State& state, Prepare prepare, Work work) {
    for (auto _ : state) {
        prepare();
        const double start = thread_seconds();
        const bool good = work();
        state.SetIterationTime(thread_seconds() - start);
        if (!good) return state.SkipWithError("failed");
    }
}

void nothing() {}

// ---- the safe store

struct Tree : NV_store::NV_root {
    Tree() : NV_root(nullptr, 1, "tree") {
        unsigned short id = 0;
        for (int i = 0; i < rows_of_values; ++i, id = static_cast<unsigned short>(id + 4)) {
            if (i % (per_group / per_values) == 0) {
                id = 0;
                groups_.emplace_back(this, this, static_cast<unsigned short>(groups_.size()), "group");
            }
            const auto next = [&](int k) { return static_cast<unsigned short>(id + k); };
            on.emplace_back(&groups_.back(), next(0), "on");
            level.emplace_back(&groups_.back(), next(1), "level");
            count.emplace_back(&groups_.back(), next(2), "count");
            ratio.emplace_back(&groups_.back(), next(3), "ratio");
        }
    }
    void set(int generation) {
        for (int i = 0; i < rows_of_values; ++i) {
            const Values v = values_of(i, generation);
            const auto at = static_cast<size_t>(i);
            on[at].set(v.on);
            level[at].set(v.level);
            count[at].set(v.count);
            ratio[at].set(v.ratio);
        }
    }
    std::deque<NV_store::NV_container> groups_;
    std::deque<NV_store::NV_bool> on;
    std::deque<NV_store::NV_int16> level;
    std::deque<NV_store::NV_int32> count;
    std::deque<NV_store::NV_float> ratio;
};

void save_safe_store(benchmark::State& state) {
    Tree tree;
    NV_store::NV_safe_store store(tree, file("safe").c_str());
    int generation = 0;
    const auto prepare = [&] { tree.set(++generation); };
    measure(state, prepare, [&] { return store.save() == NV_store::Safe_result::saved; });
}
BENCHMARK(save_safe_store)->UseManualTime();

/// Into a tree that has just been made, as at the start of a program.
void load_safe_store(benchmark::State& state) {
    auto tree = std::make_unique<Tree>();
    tree->set(1);
    NV_store::NV_safe_store(*tree, file("safe").c_str()).save();
    const auto prepare = [&] {
        tree.reset();
        tree = std::make_unique<Tree>();
    };
    measure(state, prepare, [&] {
        NV_store::NV_safe_store store(*tree, file("safe").c_str());
        return store.load() == NV_store::Safe_result::loaded;
    });
    if (tree->count.back().get() != values_of(rows_of_values - 1, 1).count) state.SkipWithError("wrong values");
}
BENCHMARK(load_safe_store)->UseManualTime();

// ---- peers

std::string key(int row, const char* name) {
    return "group" + std::to_string(row / (per_group / per_values)) + "/" + name + std::to_string(row);
}

struct Keys {
    Keys() {
        for (int i = 0; i < rows_of_values; ++i)
            for (const char* name : {"on", "level", "count", "ratio"}) all.push_back(key(i, name));
    }
    std::vector<std::string> all;
};

const std::vector<std::string>& keys() {
    static const Keys keys;
    return keys.all;
}

std::vector<QString> qt_keys() {
    std::vector<QString> all;
    for (const std::string& k : keys()) all.push_back(QString::fromStdString(k));
    return all;
}

void give_to(QSettings& settings, const std::vector<QString>& names, int generation) {
    for (int i = 0; i < rows_of_values; ++i) {
        const Values v = values_of(i, generation);
        const QString* const name = &names[static_cast<size_t>(i) * per_values];
        settings.setValue(name[0], v.on);
        settings.setValue(name[1], v.level);
        settings.setValue(name[2], v.count);
        settings.setValue(name[3], v.ratio);
    }
}

/// `range` 1: handing the values over counts, as a program that keeps them in its own variables must do; 0: it does
/// not.
void save_QSettings(benchmark::State& state) {
    QSettings settings(QString::fromStdString(file("ini")), QSettings::IniFormat);
    const std::vector<QString> names = qt_keys();
    const bool all = state.range(0);
    int generation = 0;
    const auto give = [&] { give_to(settings, names, ++generation); };
    const auto prepare = [&] {
        if (!all) give();
    };
    measure(state, prepare, [&] {
        if (all) give();
        settings.sync();
        return settings.status() == QSettings::NoError;
    });
}
BENCHMARK(save_QSettings)->Arg(1)->Arg(0)->UseManualTime();

void load_QSettings(benchmark::State& state) {
    const QString path = QString::fromStdString(file("ini"));
    const std::vector<QString> names = qt_keys();
    {
        QSettings settings(path, QSettings::IniFormat);
        give_to(settings, names, 1);
    }
    std::vector<Values> all(rows_of_values);
    time_t time = 1;
    const auto prepare = [&] { // it keeps files that it has read; a new time makes it read this one
        const struct timespec times[2] = {{++time, 0}, {time, 0}};
        utimensat(AT_FDCWD, file("ini").c_str(), times, 0);
    };
    measure(state, prepare, [&] {
        QSettings settings(path, QSettings::IniFormat);
        for (size_t i = 0; i < all.size(); ++i) {
            const QString* const name = &names[i * per_values];
            all[i] = {settings.value(name[0]).toBool(), static_cast<short>(settings.value(name[1]).toInt()),
                      settings.value(name[2]).toInt(), settings.value(name[3]).toFloat()};
        }
        return all.back().count == values_of(rows_of_values - 1, 1).count;
    });
}
BENCHMARK(load_QSettings)->UseManualTime();

#ifdef KAV_PEER_SQLITE
class Database {
public:
    Database() {
        sqlite3_open(file("sqlite").c_str(), &_db);
        run("CREATE TABLE IF NOT EXISTS settings (path TEXT PRIMARY KEY, value) WITHOUT ROWID");
        sqlite3_prepare_v2(_db, "INSERT OR REPLACE INTO settings VALUES (?, ?)", -1, &_put, nullptr);
        sqlite3_prepare_v2(_db, "SELECT value FROM settings WHERE path = ?", -1, &_get, nullptr);
    }
    ~Database() {
        sqlite3_finalize(_put);
        sqlite3_finalize(_get);
        sqlite3_close(_db);
    }
    void run(const char* sql) { sqlite3_exec(_db, sql, nullptr, nullptr, nullptr); }
    void put(const std::string& path, double value, bool whole) {
        sqlite3_bind_text(_put, 1, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
        if (whole)
            sqlite3_bind_int64(_put, 2, static_cast<sqlite3_int64>(value));
        else
            sqlite3_bind_double(_put, 2, value);
        sqlite3_step(_put);
        sqlite3_reset(_put);
    }
    double get(const std::string& path) {
        sqlite3_bind_text(_get, 1, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
        sqlite3_step(_get);
        const double value = sqlite3_column_double(_get, 0);
        sqlite3_reset(_get);
        return value;
    }
    void save(int generation) {
        run("BEGIN");
        for (int i = 0; i < rows_of_values; ++i) {
            const Values v = values_of(i, generation);
            const std::string* const name = &keys()[static_cast<size_t>(i) * per_values];
            put(name[0], v.on, true);
            put(name[1], v.level, true);
            put(name[2], v.count, true);
            put(name[3], static_cast<double>(v.ratio), false);
        }
        run("COMMIT");
    }

private:
    sqlite3* _db = nullptr;
    sqlite3_stmt *_put = nullptr, *_get = nullptr;
};

void save_SQLite(benchmark::State& state) {
    Database db;
    int generation = 0;
    measure(state, nothing, [&] {
        db.save(++generation);
        return true;
    });
}
BENCHMARK(save_SQLite)->UseManualTime();

void load_SQLite(benchmark::State& state) {
    Database().save(1);
    std::vector<Values> all(rows_of_values);
    measure(state, nothing, [&] {
        Database db;
        db.run("BEGIN");
        for (size_t i = 0; i < all.size(); ++i) {
            const std::string* const name = &keys()[i * per_values];
            all[i] = {db.get(name[0]) != 0, static_cast<short>(db.get(name[1])), static_cast<int>(db.get(name[2])),
                      static_cast<float>(db.get(name[3]))};
        }
        db.run("COMMIT");
        return all.back().count == values_of(rows_of_values - 1, 1).count;
    });
}
BENCHMARK(load_SQLite)->UseManualTime();
#endif

/// The least that a program could do: its struct and a checksum, beside the old file and renamed over it.
bool save_packed_file(const std::vector<Values>& all) {
    const std::string path = file("packed"), fresh = path + ".new";
    const auto size = static_cast<int>(all.size() * sizeof(Values));
    const auto crc = static_cast<unsigned>(Util::crc32(0, all.data(), size));
    FILE* const out = fopen(fresh.c_str(), "wb");
    const bool written = out && fwrite(all.data(), sizeof(Values), all.size(), out) == all.size() &&
                         fwrite(&crc, sizeof crc, 1, out) == 1 && fflush(out) == 0 && fsync(fileno(out)) == 0;
    return out && fclose(out) == 0 && written && rename(fresh.c_str(), path.c_str()) == 0;
}

std::vector<Values> packed_values(int generation) {
    std::vector<Values> all;
    for (int i = 0; i < rows_of_values; ++i) all.push_back(values_of(i, generation));
    return all;
}

void save_packed(benchmark::State& state) {
    const std::vector<Values> all = packed_values(1);
    measure(state, nothing, [&] { return save_packed_file(all); });
}
BENCHMARK(save_packed)->UseManualTime();

void load_packed(benchmark::State& state) {
    std::vector<Values> all = packed_values(1);
    save_packed_file(all);
    measure(state, nothing, [&] {
        unsigned crc = 0;
        FILE* const in = fopen(file("packed").c_str(), "rb");
        const bool read =
            fread(all.data(), sizeof(Values), all.size(), in) == all.size() && fread(&crc, sizeof crc, 1, in) == 1;
        fclose(in);
        return read && crc == Util::crc32(0, all.data(), static_cast<int>(all.size() * sizeof(Values)));
    });
}
BENCHMARK(load_packed)->UseManualTime();

// ---- the checksum alone

template <class Crc>
void checksum(benchmark::State& state, Crc crc) {
    const std::string bytes(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc(bytes.data(), static_cast<int>(bytes.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(checksum, ours, [](const char* data, int n) { return Util::crc32(0, data, n); })
    ->Arg(64)
    ->Arg(255)
    ->Arg(4096);
#ifdef KAV_PEER_ZLIB
BENCHMARK_CAPTURE(checksum, zlib,
                  [](const char* data, int n) {
                      return crc32(0, reinterpret_cast<const Bytef*>(data), static_cast<uInt>(n));
                  })
    ->Arg(64)
    ->Arg(255)
    ->Arg(4096);
#endif

} // namespace

BENCHMARK_MAIN();
