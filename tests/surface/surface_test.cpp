#include "surface/surface.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"

namespace ipt::surface {

namespace {
std::vector<Case>& case_list() {
    static std::vector<Case> list;
    return list;
}
std::vector<Exempt>& exempt_list() {
    static std::vector<Exempt> list;
    return list;
}
}  // namespace

bool add(std::vector<Case> c) {
    for (auto& one : c) case_list().push_back(std::move(one));
    return true;
}
bool exempt(std::vector<Exempt> e) {
    for (auto& one : e) exempt_list().push_back(std::move(one));
    return true;
}
const std::vector<Case>& cases() { return case_list(); }
const std::vector<Exempt>& exempts() { return exempt_list(); }

namespace {

// The names the public headers export: every declaration line that starts with IPCLIENT_API.
std::set<std::string> declared_functions() {
    // Every public header that declares functions.
    static const char* const headers[] = {"adj.h",    "arp.h",    "fib.h",  "ipaddr.h", "ipcfg.h",
                                          "ipstat.h", "kernel.h", "lipc.h", "nd.h"};
    const std::regex decl(R"(^IPCLIENT_API [^(;\[]*[ *]([A-Za-z_][A-Za-z0-9_]*)[ ]*\()");
    std::set<std::string> names;
    for (const char* h : headers) {
        std::ifstream in(std::string(IPCLIENT_SOURCE_DIR) + "/include/ipclient/" + h);
        EXPECT_TRUE(in.good()) << h;
        std::string line;
        while (std::getline(in, line)) {
            std::smatch m;
            if (std::regex_search(line, m, decl)) names.insert(m[1]);
        }
    }
    return names;
}

bool sends(const ipp_sock_event& e) {
    return e.call == IPP_CALL_SEND || e.call == IPP_CALL_SENDTO || e.call == IPP_CALL_SENDMSG ||
           e.call == IPP_CALL_CONNECT;
}

using SurfaceTest = PlatformTest;

TEST_F(SurfaceTest, EveryExportedFunctionHasARowOrAReason) {
    std::set<std::string> covered;
    for (const Case& c : cases()) covered.insert(c.function);
    std::set<std::string> exempted;
    for (const Exempt& e : exempts()) {
        EXPECT_FALSE(e.reason.empty()) << e.function;
        EXPECT_TRUE(exempted.insert(e.function).second) << e.function << " is exempted twice";
        EXPECT_EQ(covered.count(e.function), 0u) << e.function << " has rows and a reason";
    }
    const std::set<std::string> declared = declared_functions();
    EXPECT_GT(declared.size(), 150u);
    for (const std::string& name : declared) {
        EXPECT_TRUE(covered.count(name) != 0 || exempted.count(name) != 0) << name << " has no row and no reason";
    }
    std::printf("%zu exported functions: %zu rows over %zu of them, %zu with a reason\n", declared.size(),
                cases().size(), covered.size(), exempted.size());
    for (const std::string& name : covered) EXPECT_EQ(declared.count(name), 1u) << name << " is not exported";
    for (const std::string& name : exempted) EXPECT_EQ(declared.count(name), 1u) << name << " is not exported";
}

TEST_F(SurfaceTest, EveryBadArgumentIsRefusedBeforeAnythingIsSent) {
    ASSERT_FALSE(cases().empty());
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.function + ": " + c.argument);
        // A fresh platform for each row: its kernel records every request, its socket log
        // every socket call of the library.
        ipp_reset();
        ipp_sleep_set_virtual(1);
        const FakeKernel kernel;
        const std::uint32_t result = c.call();
        if (!c.any_result) {
            EXPECT_EQ(result, c.expected) << std::hex << "0x" << result;
        }
        EXPECT_EQ(kernel.count(), 0u) << "a kernel request was made";
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 0u) << "an asynchronous kernel request was made";
        const std::uint32_t logged = ipp_sock_log_count();
        for (std::uint32_t i = 0; i < logged; ++i) {
            ipp_sock_event e{};
            ASSERT_EQ(ipp_sock_log_get(i, &e), 0);
            EXPECT_FALSE(sends(e)) << "socket call " << static_cast<int>(e.call) << " on descriptor " << e.fd;
        }
    }
}

}  // namespace
}  // namespace ipt::surface
