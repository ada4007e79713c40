// The log library loaded at run time: its binary interface, and its life beyond its own unloading.

#include <dlfcn.h>
#include <stdlib.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ExitedWithCode;
using ::testing::MatchesRegex;

using GetLevel = int (*)();
using SetLevel = void (*)(int);
using Log = void (*)(int, const std::string&, const char*, const char*, int);

// The operations under the names that an application or another CLogWrapper uses.
struct Loaded {
    void* library = dlopen(CLOGWRAPPER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    GetLevel getLevel = find<GetLevel>("_ZN11CLogWrapper8GetLevelEv");
    SetLevel setLevel = find<SetLevel>("_ZN11CLogWrapper8SetLevelEi");
    Log log = find<Log>(
        "_ZN11CLogWrapper3LogEiRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEPKcS9_i");

    bool complete() const { return library && getLevel && setLevel && log; }

private:
    template <class Function>
    Function find(const char* name) {
        return library ? reinterpret_cast<Function>(dlsym(library, name)) : nullptr;
    }
};

class LogWrapperLoad : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

Log g_log = nullptr;

void logFromExitHandler() {
    g_log(40000, "a\nb", "/x/a.cpp", nullptr, 3);
    g_log(20000, "unseen", "a.cpp", "f", 4);
    g_log(12345, "odd", nullptr, "f", 5);
}

TEST_F(LogWrapperLoad, HasItsOperationsUnderTheirMangledNames) {
    const Loaded loaded;
    ASSERT_TRUE(loaded.library) << dlerror();
    EXPECT_TRUE(loaded.getLevel);
    EXPECT_TRUE(loaded.setLevel);
    EXPECT_TRUE(loaded.log);
}

TEST_F(LogWrapperLoad, SurvivesBeingLoadedAndUnloadedAgainAndAgain) {
    const auto run = [] {
        for (int i = 0; i < 50; ++i) {
            const Loaded loaded;
            if (!loaded.complete() || loaded.getLevel() != 40000) exit(1);
            if (i == 49) loaded.log(40000, "last", "a.cpp", "f", i);
            if (dlclose(loaded.library) != 0) exit(2);
        }
        exit(0);
    };
    EXPECT_EXIT(run(), ExitedWithCode(0), MatchesRegex(".{24}ERROR a\\.cpp:49 f: last\n"));
}

// Exit handlers run last come first: this one, registered before the library is loaded, runs when
// the static objects of the library and of what it is built on are gone.
TEST_F(LogWrapperLoad, LogsInTheSameFormatAfterItsStaticObjectsAreGone) {
    const auto run = [] {
        atexit(logFromExitHandler);
        const Loaded loaded;
        if (!loaded.complete()) exit(1);
        g_log = loaded.log;
        loaded.log(40000, "before", "a.cpp", "f", 1);
        exit(0);
    };
    EXPECT_EXIT(run(), ExitedWithCode(0),
                MatchesRegex(".{24}ERROR a\\.cpp:1 f: before\n"
                             "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} "
                             "ERROR a\\.cpp:3 \\?: a\\\\nb\n"));
}

TEST_F(LogWrapperLoad, NamesUnknownLevelsAlikeBeforeAndAfter) {
    const auto run = [] {
        atexit(logFromExitHandler);
        const Loaded loaded;
        if (!loaded.complete()) exit(1);
        g_log = loaded.log;
        loaded.setLevel(0);
        loaded.log(12345, "odd", nullptr, "f", 1);
        exit(0);
    };
    EXPECT_EXIT(run(), ExitedWithCode(0),
                MatchesRegex(".{24}UNKNOWN \\?:1 f: odd\n"
                             ".{24}ERROR a\\.cpp:3 \\?: a\\\\nb\n"
                             ".{24}INFO a\\.cpp:4 f: unseen\n"
                             ".{24}UNKNOWN \\?:5 f: odd\n"));
}

}  // namespace
