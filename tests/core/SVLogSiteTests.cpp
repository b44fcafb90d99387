// SPDX-License-Identifier: Apache-2.0
// The log-site rule: a site inside the function it names reports that
// function and its own line without spelling either; a table entry reports
// its fixed name and line (or, with line 0, the site's own line); a helper
// handed its caller's identity reports the caller.  Checked through the
// log sink, with the module's source path.
#include <gtest/gtest.h>

#include <string>

#include "core/SVLog.h"
#include "support/LogCapture.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVLogSiteTest");

constexpr struct {
    sorvel::SVLogSite fixed{"_SVFixedName", 4321};
    sorvel::SVLogSite ownLine{"_SVNameOnly", 0};
} kLogSites;

int logHere() {
    SV_LOG_HERE(3, "here %d", 1);
    return __LINE__ - 1;
}

int logStatusHere() {
    SV_LOG_STATUS_HERE(3, -12731, "failed: %s (%d)", 7);
    return __LINE__ - 1;
}

int logFixed() {
    SV_LOG_SITE(kLogSites.fixed, 4, "fixed");
    return 4321;
}

int logOwnLine() {
    SV_LOG_SITE_AT("", kLogSites.ownLine, 3, "own line");
    return __LINE__ - 1;
}

int helperFor(sorvel::SVLogSite caller) {
    SV_LOG_SITE(caller, 3, "on behalf");
    return caller.line;
}

int publicCaller() {
    return helperFor(SV_HERE);
}

int helperForName(const char *function) {
    SV_LOG_FOR(function, 3, "named");
    return __LINE__ - 1;
}

int namingCaller() {
    return helperForName(__func__);
}

struct Expected {
    int (*provoke)();
    const char *function;
    const char *path;
    int level;
    const char *message;
};

TEST(LogSite, EachKindOfSiteReportsTheIdentityTheRuleGivesIt) {
    const Expected cases[] = {
        {logHere, "logHere", "Sorvel/Sources/SVLogSiteTest", 3, "here 1"},
        {logStatusHere, "logStatusHere", "Sorvel/Sources/SVLogSiteTest", 3, "failed: -12731 (7)"},
        {logFixed, "_SVFixedName", "Sorvel/Sources/SVLogSiteTest", 4, "fixed"},
        {logOwnLine, "_SVNameOnly", "", 3, "own line"},
        {publicCaller, "publicCaller", "Sorvel/Sources/SVLogSiteTest", 3, "on behalf"},
        {namingCaller, "namingCaller", "Sorvel/Sources/SVLogSiteTest", 3, "named"},
    };
    for (const Expected &c : cases) {
        sorvel_test::LogCapture log(4);
        const int line = c.provoke();
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << c.function;
        EXPECT_EQ(lines[0].function, c.function);
        EXPECT_EQ(lines[0].path, c.path) << c.function;
        EXPECT_EQ(lines[0].line, line) << c.function;
        EXPECT_EQ(lines[0].level, c.level) << c.function;
        EXPECT_EQ(lines[0].message.rfind(c.message, 0), 0u) << c.function << ": " << lines[0].message;
    }
}

}  // namespace
