// The forwarding-table file: every running node's routes as the dump service delivers them,
// compared byte for byte with the text expected; VRF names from the layer-3 VPN library;
// every failure path, with the file deleted and the dump always terminated; and chunks that
// lie about their sizes.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ipclient/fib.h"
#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"

namespace ipt {
// While armed, every fwrite of the process fails (the library's writes included: this
// program's fwrite stands before the C library's); the writes tried are counted.
std::atomic<bool> g_fwrite_fails{false};
std::atomic<int> g_fwrites_failed{0};

namespace {

constexpr std::uint32_t kDumpId = 0x640001u;
constexpr std::uint32_t kFileFailed = 0x4001000Bu;
constexpr std::uint32_t kNone = 0xFFFFFFFFu;
constexpr char kLib[] = "/lib/libl3vpn.so";
constexpr char kHeader[] = "[FIB Info]\r\n";

using Ip = std::array<std::uint8_t, 4>;
using Mac = std::array<std::uint8_t, 6>;

// One route as the kernel keeps it; entry() lays it out big-endian in 48 bytes.
struct Route {
    std::uint16_t vrf = 0;
    Ip dest{};
    std::uint32_t mask = 0;
    Ip hop{};
    std::uint32_t v16 = kNone;
    std::uint32_t v20 = 0;
    std::uint32_t v24 = kNone;
    Mac mac1{};
    Mac mac2{};
    std::uint16_t h40 = 0;
    std::uint16_t h42 = 0;
    std::uint32_t out = 0;
};

Bytes entry(const Route& r) {
    Bytes b;
    put16(b, r.vrf);
    b.push_back(0xEE);  // bytes 2 and 3 are not read
    b.push_back(0xEF);
    putraw(b, r.dest.data(), 4);
    put32(b, r.mask);
    putraw(b, r.hop.data(), 4);
    put32(b, r.v16);
    put32(b, r.v20);
    put32(b, r.v24);
    putraw(b, r.mac1.data(), 6);
    putraw(b, r.mac2.data(), 6);
    put16(b, r.h40);
    put16(b, r.h42);
    put32(b, r.out);
    return b;
}

// A chunk: 4 unused bytes, the entry size in host order, then the entries, each cut to or
// padded (0x77) to the entry size.
Bytes chunk(std::uint32_t size, const std::vector<Route>& routes) {
    Bytes b{0xDE, 0xAD, 0xBE, 0xEF, 0, 0, 0, 0};
    std::memcpy(b.data() + 4, &size, 4);
    for (const Route& r : routes) {
        Bytes e = entry(r);
        e.resize(size, 0x77);
        b.insert(b.end(), e.begin(), e.end());
    }
    return b;
}

void add_chunk(std::uint16_t node, const Bytes& c) {
    ipp_dump_add_chunk(node, kDumpId, c.data(), static_cast<std::uint32_t>(c.size()));
}

void add_interface(std::uint32_t ifindex, const char* name) {
    DirInterface(ifindex).node(0x11).name(name).valid().add();
}

// True when the library at path is mapped in this process.
bool library_loaded(const char* path) {
    void* h = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (h == nullptr) return false;
    dlclose(h);
    return true;
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

std::string read_file(const std::string& path) {
    std::string text;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return "<no file>";
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) != 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

class DumpTest : public PlatformTest {
protected:
    DumpTest() {
        char tmpl[] = "/tmp/fibdump.XXXXXX";
        const char* made = mkdtemp(tmpl);
        if (made != nullptr) dir_ = made;
        path_ = dir_ + "/fib.txt";
    }

    void SetUp() override { ASSERT_FALSE(dir_.empty()) << "mkdtemp failed"; }

    void TearDown() override {
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
        PlatformTest::TearDown();
    }

    // The device: nodes 0x11 and 0x22 run, 0x33 and 0x44 do not (IF_IsNodeUp 0 and 2).
    void device() {
        const std::uint16_t nodes[] = {0x11, 0x33, 0x22, 0x44};
        ipp_dir_set_nodes(nodes, 4);
        ipp_dir_set_node_up(0x11, 1);
        ipp_dir_set_node_up(0x22, 1);
        ipp_dir_set_node_up(0x33, 0);
        ipp_dir_set_node_up(0x44, 2);
        ipp_dir_set_node_location(0x11, 1, 2, 0);
        ipp_dir_set_node_location(0x22, 1, 5, 1);
        ipp_dir_set_node_location(0x33, 2, 3, 4);
        ipp_dir_set_node_location(0x44, 3, 3, 3);
        add_interface(100, "GigabitEthernet1/0/1");
        add_interface(200, "Vlan-interface10");
        add_interface(300, "Tunnel7");
        add_interface(400, "LoopBack0");
        ipp_dir_fail_item(400, 11, 0x40010001u);  // known, but its name cannot be read
    }

    // The routes of the device: three chunks on 0x11 (48-byte entries, 40-byte entries, no
    // entries), one chunk of 56-byte entries on 0x22; the stopped nodes have routes too.
    void table() {
        Route e1;
        e1.vrf = 0;
        e1.dest = {10, 1, 2, 0};
        e1.mask = 0xFFFFFF00u;
        e1.hop = {192, 168, 1, 254};
        e1.v16 = 7;
        e1.v20 = 200;
        e1.v24 = kNone;
        e1.mac1 = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
        e1.mac2 = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
        e1.h40 = 100;
        e1.h42 = 65535;
        e1.out = 100;
        Route e2;
        e2.vrf = 5;
        e2.dest = {0, 0, 0, 0};
        e2.mask = 0;
        e2.hop = {10, 0, 0, 1};
        e2.v16 = kNone;
        e2.v20 = 999;  // unknown
        e2.v24 = kNone;
        e2.mac1 = {1, 2, 3, 4, 5, 6};
        e2.mac2 = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
        e2.h40 = 65535;
        e2.h42 = 0x0201;
        e2.out = 999;
        Route e3;
        e3.vrf = 7;
        e3.dest = {172, 16, 0, 1};
        e3.mask = 0xFFFFFFFFu;
        e3.hop = {0, 0, 0, 0};
        e3.v16 = 0x01020304u;
        e3.v20 = 100;
        e3.v24 = 0x00010002u;
        e3.mac1 = {0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54};
        e3.mac2 = {0, 0, 0, 0, 0, 1};
        e3.h40 = 0x0102;
        e3.h42 = 0x0304;
        e3.out = 400;
        add_chunk(0x11, chunk(48, {e1, e2, e3}));

        // 40-byte entries: what lies past byte 40 comes from the work record, cleared for
        // this chunk (the previous chunk's last entry had non-zero values there).
        Route e4;
        e4.vrf = 9;  // no name
        e4.dest = {10, 9, 0, 0};
        e4.mask = 0xFFFF0000u;
        e4.hop = {10, 9, 255, 254};
        e4.v16 = 0xFFFFFFFEu;
        e4.v20 = 300;
        e4.v24 = kNone;
        e4.mac1 = {0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
        e4.mac2 = {0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f};
        e4.h40 = 5;  // cut off
        e4.h42 = 6;
        e4.out = 100;
        Route e5;
        e5.vrf = 5;
        e5.dest = {1, 2, 3, 4};
        e5.mask = 0xFF00FF00u;  // 32 minus the trailing zero bits
        e5.hop = {5, 6, 7, 8};
        e5.v16 = 0;
        e5.v20 = 999;
        e5.v24 = 0;
        e5.mac1 = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
        e5.mac2 = {0, 0, 0, 0, 0, 0};
        e5.h40 = 7;
        e5.h42 = 8;
        e5.out = 200;
        add_chunk(0x11, chunk(40, {e4, e5}));
        add_chunk(0x11, chunk(48, {}));

        Route e6;
        e6.vrf = 0;
        e6.dest = {192, 0, 2, 0};
        e6.mask = 0xFFFFFFC0u;
        e6.hop = {198, 51, 100, 1};
        e6.v16 = 12345;
        e6.v20 = 300;
        e6.v24 = kNone;
        e6.mac1 = {0x00, 0x0c, 0x29, 0xab, 0xcd, 0xef};
        e6.mac2 = {0x01, 0x00, 0x5e, 0x00, 0x00, 0x05};
        e6.h40 = 0;
        e6.h42 = 65534;
        e6.out = 300;
        Route e7;
        e7.vrf = 7;
        e7.dest = {203, 0, 113, 0};
        e7.mask = 0xFFFFFFFEu;
        e7.hop = {203, 0, 113, 1};
        e7.v16 = kNone;
        e7.v20 = 100;
        e7.v24 = kNone;
        e7.mac1 = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc};
        e7.mac2 = {0xde, 0xf0, 0x12, 0x34, 0x56, 0x78};
        e7.h40 = 65535;
        e7.h42 = 65535;
        e7.out = 200;
        add_chunk(0x22, chunk(56, {e6, e7}));

        add_chunk(0x33, chunk(48, {e1}));
        add_chunk(0x44, chunk(48, {e2}));
    }

    static std::string expected_table(const char* red, const char* blue) {
        std::string s = kHeader;
        s += "{1, 2, 0}, {public, 10.1.2.0/24} -> {192.168.1.254, Vlan-interface10, 7}, "
             "{00-1a-2b-3c-4d-5e, aa-bb-cc-dd-ee-ff, 100/0, GigabitEthernet1/0/1}\r\n";
        s += std::string("{1, 2, 0}, {") + red +
             ", 0.0.0.0/0} -> {10.0.0.1, N/A, Null}, {01-02-03-04-05-06, 10-20-30-40-50-60, 0/513, N/A}\r\n";
        s += std::string("{1, 2, 0}, {") + blue +
             ", 172.16.0.1/32} -> {0.0.0.0, 65538, 16909060}, "
             "{fe-dc-ba-98-76-54, 00-00-00-00-00-01, 258/772, N/A}\r\n";
        s += "{1, 2, 0}, {N/A, 10.9.0.0/16} -> {10.9.255.254, Tunnel7, 4294967294}, "
             "{0a-0b-0c-0d-0e-0f, 1a-1b-1c-1d-1e-1f, 0/0, N/A}\r\n";
        s += std::string("{1, 2, 0}, {") + red +
             ", 1.2.3.4/24} -> {5.6.7.8, 0, 0}, {ff-ff-ff-ff-ff-ff, 00-00-00-00-00-00, 0/0, N/A}\r\n";
        s += "{1, 5, 1}, {public, 192.0.2.0/26} -> {198.51.100.1, Tunnel7, 12345}, "
             "{00-0c-29-ab-cd-ef, 01-00-5e-00-00-05, 0/65534, Tunnel7}\r\n";
        s += std::string("{1, 5, 1}, {") + blue +
             ", 203.0.113.0/31} -> {203.0.113.1, GigabitEthernet1/0/1, Null}, "
             "{12-34-56-78-9a-bc, de-f0-12-34-56-78, 0/0, Vlan-interface10}\r\n";
        return s;
    }

    // The dumps requested, in order: node (low 16 bits) and the request itself.
    static void expect_dump_requests(std::initializer_list<std::uint16_t> nodes) {
        ASSERT_EQ(ipp_dump_request_count(), nodes.size());
        std::uint32_t i = 0;
        for (const std::uint16_t node : nodes) {
            SCOPED_TRACE(i);
            std::uint32_t word = 0, id = 0;
            std::uint8_t bytes[16] = {};
            EXPECT_EQ(ipp_dump_request(i, &word, &id, bytes, sizeof bytes), 8u);
            EXPECT_EQ(word & 0xFFFFu, node);
            EXPECT_EQ(id, kDumpId);
            const std::uint8_t want[8] = {11, 0, 0, 0, 0, 0, 0, 0};
            EXPECT_EQ(0, std::memcmp(bytes, want, 8));
            ++i;
        }
    }

    // A single running node 0x11 at {4, 6, 2} with the given chunks.
    void one_node(const std::vector<Bytes>& chunks) {
        const std::uint16_t node = 0x11;
        ipp_dir_set_nodes(&node, 1);
        ipp_dir_set_node_up(0x11, 1);
        ipp_dir_set_node_location(0x11, 4, 6, 2);
        for (const Bytes& c : chunks) add_chunk(0x11, c);
    }

    std::uint32_t save() { return FIB_SaveForwardingTable(path_.c_str()); }

    std::string dir_;
    std::string path_;
};

Route plain_route(std::uint8_t last) {
    Route r;
    r.dest = {10, 0, 0, last};
    r.mask = 0xFFFFFFFFu;
    r.hop = {10, 0, 0, 254};
    r.v16 = last;
    r.v24 = 1;
    r.mac1 = {0, 0, 0, 0, 0, last};
    r.mac2 = {last, 0, 0, 0, 0, 0};
    r.h40 = 1;
    r.h42 = 2;
    r.out = 100;
    return r;
}

// The line plain_route(last) gives on node 0x11 at {4, 6, 2} with interface 100 unknown.
std::string plain_line(std::uint8_t last) {
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "{4, 6, 2}, {public, 10.0.0.%u/32} -> {10.0.0.254, 1, %u}, "
                  "{00-00-00-00-00-%02x, %02x-00-00-00-00-00, 1/2, N/A}\r\n",
                  unsigned{last}, unsigned{last}, unsigned{last}, unsigned{last});
    return buf;
}

// ---- The whole table ---------------------------------------------------------------------

TEST_F(DumpTest, WritesEveryRunningNodesTableByteForByte) {
    device();
    table();
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_PATH);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), expected_table("vpn-red", "vpn-blue"));
    expect_dump_requests({0x11, 0x22});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
    EXPECT_FALSE(library_loaded(FAKE_L3VPN_PATH)) << "the VPN library must be closed after the save";
    // The check itself sees a library that is loaded.
    void* h = dlopen(FAKE_L3VPN_PATH, RTLD_NOW);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(library_loaded(FAKE_L3VPN_PATH));
    dlclose(h);
    EXPECT_FALSE(library_loaded(FAKE_L3VPN_PATH));
}

TEST_F(DumpTest, WithoutTheVpnLibraryNamedVrfsPrintNotAvailable) {
    device();
    table();
    ipp_dlopen_redirect(kLib, nullptr);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), expected_table("N/A", "N/A"));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
}

TEST_F(DumpTest, VpnLibraryWithoutTheLookupIsClosedAndNamesPrintNotAvailable) {
    device();
    table();
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_NOSYM_PATH);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), expected_table("N/A", "N/A"));
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
    EXPECT_FALSE(library_loaded(FAKE_L3VPN_NOSYM_PATH));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, VpnLookupIsForgottenAfterEachSave) {
    device();
    table();
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_PATH);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), expected_table("vpn-red", "vpn-blue"));
    ipp_dlopen_redirect(kLib, nullptr);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), expected_table("N/A", "N/A"));
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_PATH);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), expected_table("vpn-red", "vpn-blue"));
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 3u);
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_FALSE(library_loaded(FAKE_L3VPN_PATH));
}

TEST_F(DumpTest, NodesThatAreNotUpAreSkipped) {
    device();
    table();
    ipp_dlopen_redirect(kLib, nullptr);
    ASSERT_EQ(save(), 0u);
    // Neither 0x33 (up 0) nor 0x44 (up 2) is asked, and none of their routes is written.
    expect_dump_requests({0x11, 0x22});
    const std::string text = read_file(path_);
    EXPECT_EQ(text.find("{2, 3, 4}"), std::string::npos);
    EXPECT_EQ(text.find("{3, 3, 3}"), std::string::npos);
}

TEST_F(DumpTest, NodeWithAnEmptyDumpWritesNothing) {
    const std::uint16_t nodes[] = {0x11, 0x22};
    ipp_dir_set_nodes(nodes, 2);
    ipp_dir_set_node_up(0x11, 1);
    ipp_dir_set_node_up(0x22, 1);
    ipp_dir_set_node_location(0x22, 4, 6, 2);
    add_chunk(0x22, chunk(48, {plain_route(9)}));
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(9));
    expect_dump_requests({0x11, 0x22});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, WorkRecordIsResetForEveryChunk) {
    add_interface(0, "NULL0");
    add_interface(200, "Vlan-interface10");
    Route full = plain_route(1);
    full.v24 = 0x00010002u;  // a number in place of the interface
    full.mac1 = {1, 1, 1, 1, 1, 1};
    full.mac2 = {2, 2, 2, 2, 2, 2};
    full.h40 = 40;
    full.h42 = 42;
    full.out = 200;
    Route shorter = plain_route(2);
    shorter.v20 = 200;
    Route shorter2 = plain_route(3);
    shorter2.v20 = 999;
    // 24-byte entries reach the value at 20 but not the one at 24: that one is all ones again,
    // so the interface at 20 is printed; everything from 28 on is zero, interface 0 included.
    one_node({chunk(48, {full}), chunk(24, {shorter, shorter2}), chunk(48, {full}), chunk(40, {full})});
    ASSERT_EQ(save(), 0u);
    const std::string want = std::string(kHeader) +
                             "{4, 6, 2}, {public, 10.0.0.1/32} -> {10.0.0.254, 65538, 1}, "
                             "{01-01-01-01-01-01, 02-02-02-02-02-02, 40/42, Vlan-interface10}\r\n"
                             "{4, 6, 2}, {public, 10.0.0.2/32} -> {10.0.0.254, Vlan-interface10, 2}, "
                             "{00-00-00-00-00-00, 00-00-00-00-00-00, 0/0, NULL0}\r\n"
                             "{4, 6, 2}, {public, 10.0.0.3/32} -> {10.0.0.254, N/A, 3}, "
                             "{00-00-00-00-00-00, 00-00-00-00-00-00, 0/0, NULL0}\r\n"
                             "{4, 6, 2}, {public, 10.0.0.1/32} -> {10.0.0.254, 65538, 1}, "
                             "{01-01-01-01-01-01, 02-02-02-02-02-02, 40/42, Vlan-interface10}\r\n"
                             "{4, 6, 2}, {public, 10.0.0.1/32} -> {10.0.0.254, 65538, 1}, "
                             "{01-01-01-01-01-01, 02-02-02-02-02-02, 0/0, NULL0}\r\n";
    EXPECT_EQ(read_file(path_), want);
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

// ---- Edge cases --------------------------------------------------------------------------

TEST_F(DumpTest, MaskOf255_255_255_0PrintsPrefixLength24AndMaskZeroPrintsPrefixLength0) {
    Route a = plain_route(1);
    a.mask = 0xFFFFFF00u;
    Route b = plain_route(2);
    b.mask = 0;
    one_node({chunk(48, {a, b})});
    ASSERT_EQ(save(), 0u);
    const std::string text = read_file(path_);
    EXPECT_EQ(text, std::string(kHeader) +
                        "{4, 6, 2}, {public, 10.0.0.1/24} -> {10.0.0.254, 1, 1}, "
                        "{00-00-00-00-00-01, 01-00-00-00-00-00, 1/2, N/A}\r\n"
                        "{4, 6, 2}, {public, 10.0.0.2/0} -> {10.0.0.254, 1, 2}, "
                        "{00-00-00-00-00-02, 02-00-00-00-00-00, 1/2, N/A}\r\n");
}

TEST_F(DumpTest, AllOnesAt24WithAnUnknownInterfaceAt20PrintsNotAvailableAndAllOnesAt16PrintsNull) {
    Route r = plain_route(1);
    r.v24 = kNone;
    r.v20 = 12345;  // no such interface
    r.v16 = kNone;
    one_node({chunk(48, {r})});
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) +
                                    "{4, 6, 2}, {public, 10.0.0.1/32} -> {10.0.0.254, N/A, Null}, "
                                    "{00-00-00-00-00-01, 01-00-00-00-00-00, 1/2, N/A}\r\n");
}

TEST_F(DumpTest, HalfWordOf65535At40Or42PrintsZero) {
    Route a = plain_route(1);
    a.h40 = 65535;
    a.h42 = 65534;
    Route b = plain_route(2);
    b.h40 = 65534;
    b.h42 = 65535;
    one_node({chunk(48, {a, b})});
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) +
                                    "{4, 6, 2}, {public, 10.0.0.1/32} -> {10.0.0.254, 1, 1}, "
                                    "{00-00-00-00-00-01, 01-00-00-00-00-00, 0/65534, N/A}\r\n"
                                    "{4, 6, 2}, {public, 10.0.0.2/32} -> {10.0.0.254, 1, 2}, "
                                    "{00-00-00-00-00-02, 02-00-00-00-00-00, 65534/0, N/A}\r\n");
}

TEST_F(DumpTest, VrfZeroPrintsPublicEvenWithoutTheVpnLibrary) {
    Route pub = plain_route(1);
    pub.vrf = 0;
    Route named = plain_route(2);
    named.vrf = 5;
    one_node({chunk(48, {pub, named})});
    ipp_dlopen_redirect(kLib, nullptr);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(1) +
                                    "{4, 6, 2}, {N/A, 10.0.0.2/32} -> {10.0.0.254, 1, 2}, "
                                    "{00-00-00-00-00-02, 02-00-00-00-00-00, 1/2, N/A}\r\n");
}

TEST_F(DumpTest, NoNodeUpLeavesOnlyTheHeader) {
    const std::uint16_t nodes[] = {0x11, 0x22};
    ipp_dir_set_nodes(nodes, 2);
    ipp_dir_set_node_up(0x11, 0);
    ipp_dir_set_node_up(0x22, 0);
    add_chunk(0x11, chunk(48, {plain_route(1)}));
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), "[FIB Info]\r\n");
    EXPECT_EQ(read_file(path_).size(), 12u);
    EXPECT_EQ(ipp_dump_request_count(), 0u);
}

TEST_F(DumpTest, EmptyNodeListLeavesOnlyTheHeader) {
    ipp_dir_set_nodes(nullptr, 0);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), "[FIB Info]\r\n");
}

// ---- Failures ----------------------------------------------------------------------------

TEST_F(DumpTest, FileThatCannotBeOpenedFailsWithoutTouchingAnything) {
    device();
    table();
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_PATH);
    const std::string missing = dir_ + "/no-such-directory/fib.txt";
    EXPECT_EQ(FIB_SaveForwardingTable(missing.c_str()), kFileFailed);
    EXPECT_FALSE(exists(missing));
    EXPECT_FALSE(exists(dir_ + "/no-such-directory"));
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 0u);
    EXPECT_EQ(ipp_dump_request_count(), 0u);
}

TEST_F(DumpTest, NoNodeListFailsAndDeletesTheFile) {
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_PATH);
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 1u);
    EXPECT_FALSE(library_loaded(FAKE_L3VPN_PATH));
    EXPECT_EQ(ipp_dump_request_count(), 0u);
}

TEST_F(DumpTest, ExistingFileIsDeletedWhenTheSaveFails) {
    {
        std::ofstream old(path_, std::ios::binary);
        old << "an older table\r\n";
    }
    ASSERT_TRUE(exists(path_));
    EXPECT_EQ(save(), kFailed);  // no node list
    EXPECT_FALSE(exists(path_));
}

TEST_F(DumpTest, DumpThatCannotBeOpenedStopsTheWalkAndDeletesTheFile) {
    device();
    table();
    ipp_dump_fail_request(0x11, kDumpId, -3);
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    expect_dump_requests({0x11});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, DumpFailingOnTheSecondNodeDeletesTheFile) {
    device();
    table();
    ipp_dump_fail_request(0x22, kDumpId, -1);
    ipp_dlopen_redirect(kLib, FAKE_L3VPN_PATH);
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    expect_dump_requests({0x11, 0x22});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_FALSE(library_loaded(FAKE_L3VPN_PATH));
}

TEST_F(DumpTest, PullAnsweringAnotherCodeStopsTheWalkAndDeletesTheFile) {
    device();
    table();
    ipp_dump_set_final(0x11, kDumpId, 0x40010005u);  // after its three chunks
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    expect_dump_requests({0x11});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, PullFailingAtOnceDeletesTheFile) {
    one_node({});
    ipp_dump_set_final(0x11, kDumpId, 0x12345678u);
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, ServiceAnsweringMoreDataWithoutEntriesForEverEndsTheWalkAsAFailedPull) {
    one_node({});
    ipp_dump_set_final(0x11, kDumpId, 0x40010009u);  // "more data", and nothing, from the start
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

// Chunks too short to hold their header: no entry each.
std::vector<Bytes> empty_chunks(int n) { return std::vector<Bytes>(static_cast<std::size_t>(n), Bytes(4, 0)); }

TEST_F(DumpTest, FewerThan1024EmptyChunksInARowDoNotEndTheWalk) {
    auto chunks = empty_chunks(1023);
    chunks.push_back(chunk(48, {plain_route(1)}));
    for (auto& c : empty_chunks(1023)) chunks.push_back(std::move(c));
    chunks.push_back(chunk(48, {plain_route(2)}));
    one_node(chunks);
    EXPECT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), "[FIB Info]\r\n" + plain_line(1) + plain_line(2));
}

TEST_F(DumpTest, The1024thEmptyChunkInARowEndsTheWalkAsAFailedPull) {
    auto chunks = empty_chunks(1024);
    chunks.push_back(chunk(48, {plain_route(1)}));
    one_node(chunks);
    EXPECT_EQ(save(), kFailed);
    EXPECT_FALSE(exists(path_));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

// A file whose writes fail: a link to /dev/full in the test's directory (deleting it on
// failure removes the link, never the device).
class FullDeviceTest : public DumpTest {
protected:
    void SetUp() override {
        DumpTest::SetUp();
        if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "/dev/full is not available";
        ASSERT_EQ(symlink("/dev/full", path_.c_str()), 0);
    }
};

TEST_F(FullDeviceTest, LineThatCannotBeWrittenStopsTheWalkAndDeletesTheFile) {
    // Enough lines to overflow the stream's buffer, so that a line's own write fails.
    std::vector<Route> routes;
    for (std::uint8_t i = 1; i <= 150; ++i) routes.push_back(plain_route(i));
    const std::uint16_t nodes[] = {0x11, 0x22};
    ipp_dir_set_nodes(nodes, 2);
    ipp_dir_set_node_up(0x11, 1);
    ipp_dir_set_node_up(0x22, 1);
    add_chunk(0x11, chunk(48, routes));
    add_chunk(0x11, chunk(48, routes));
    add_chunk(0x22, chunk(48, routes));
    EXPECT_EQ(save(), kFileFailed);
    EXPECT_FALSE(exists(path_)) << "the link must be deleted";
    EXPECT_TRUE(exists("/dev/full"));
    expect_dump_requests({0x11});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(FullDeviceTest, ClosingFailureAfterACompleteWalkDeletesTheFile) {
    one_node({chunk(48, {plain_route(1), plain_route(2)})});
    EXPECT_EQ(save(), kFileFailed);
    EXPECT_FALSE(exists(path_));
    EXPECT_TRUE(exists("/dev/full"));
    expect_dump_requests({0x11});
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, HeaderThatCannotBeWrittenFailsBeforeAnyDumpAndDeletesTheFile) {
    one_node({chunk(48, {plain_route(1), plain_route(2)})});
    g_fwrites_failed = 0;
    g_fwrite_fails = true;
    const std::uint32_t rc = save();
    g_fwrite_fails = false;
    EXPECT_EQ(rc, kFailed);
    EXPECT_EQ(g_fwrites_failed.load(), 1) << "nothing is written after the header";
    EXPECT_EQ(ipp_dump_request_count(), 0u);
    EXPECT_FALSE(exists(path_));
}

// ---- Chunks that lie ---------------------------------------------------------------------

TEST_F(DumpTest, ChunkWithEntrySizeZeroIsSkipped) {
    Bytes zero = chunk(48, {plain_route(1), plain_route(2)});
    const std::uint32_t none = 0;
    std::memcpy(zero.data() + 4, &none, 4);
    one_node({zero, chunk(48, {plain_route(3)})});
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(3));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, PartialTrailingEntryIsNotRead) {
    // Chunk 1 leaves three entries in the pull buffer; chunk 2 holds one whole entry and 20
    // bytes of a second. Reading a second entry would print chunk 1's leftovers.
    Bytes partial = chunk(48, {plain_route(7), plain_route(8)});
    partial.resize(8 + 48 + 20);
    one_node({chunk(48, {plain_route(1), plain_route(2), plain_route(3)}), partial});
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(1) + plain_line(2) + plain_line(3) + plain_line(7));
}

TEST_F(DumpTest, EntrySizeLargerThanTheChunkIsSkipped) {
    Bytes big = chunk(48, {plain_route(5)});
    const std::uint32_t size = 49;  // one byte more than the chunk holds
    std::memcpy(big.data() + 4, &size, 4);
    Bytes huge = chunk(48, {plain_route(6)});
    const std::uint32_t all = 0xFFFFFFFFu;
    std::memcpy(huge.data() + 4, &all, 4);
    Bytes beyond = chunk(48, {plain_route(7)});
    const std::uint32_t over = 8000;
    std::memcpy(beyond.data() + 4, &over, 4);
    one_node({chunk(48, {plain_route(1), plain_route(2)}), big, huge, beyond, chunk(48, {plain_route(3)})});
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(1) + plain_line(2) + plain_line(3));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, ChunkShorterThanItsHeaderIsSkipped) {
    const Bytes full = chunk(48, {plain_route(1), plain_route(2)});
    std::vector<Bytes> chunks{full};
    for (const std::size_t n : {0u, 1u, 5u, 7u}) chunks.emplace_back(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
    chunks.push_back(chunk(48, {plain_route(4)}));
    one_node(chunks);
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(1) + plain_line(2) + plain_line(4));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(DumpTest, EntriesLongerThan48AreReadAtTheirOwnStride) {
    // 100-byte entries: only the first 48 bytes of each are read, the rest is skipped.
    one_node({chunk(100, {plain_route(1), plain_route(2), plain_route(3)})});
    ASSERT_EQ(save(), 0u);
    EXPECT_EQ(read_file(path_), std::string(kHeader) + plain_line(1) + plain_line(2) + plain_line(3));
}

TEST_F(DumpTest, FullSizeChunkOfSmallEntriesStaysInside) {
    // 8-byte entries filling the largest chunk: 999 entries, each reaching its destination only.
    Bytes c{0, 0, 0, 0, 8, 0, 0, 0};
    const std::uint32_t size = 8;
    std::memcpy(c.data() + 4, &size, 4);
    for (int i = 0; i < 999; ++i) {
        put16(c, 0);
        c.push_back(0);
        c.push_back(0);
        c.push_back(10);
        c.push_back(0);
        c.push_back(static_cast<std::uint8_t>(i >> 8));
        c.push_back(static_cast<std::uint8_t>(i));
    }
    ASSERT_EQ(c.size(), 8000u);
    one_node({c});
    ASSERT_EQ(save(), 0u);
    const std::string text = read_file(path_);
    std::size_t lines = 0;
    for (std::size_t p = text.find("\r\n"); p != std::string::npos; p = text.find("\r\n", p + 2)) ++lines;
    EXPECT_EQ(lines, 1000u);  // the header and 999 routes
    EXPECT_NE(text.find("{4, 6, 2}, {public, 10.0.3.230/0} -> {0.0.0.0, N/A, 0}, "
                        "{00-00-00-00-00-00, 00-00-00-00-00-00, 0/0, N/A}\r\n"),
              std::string::npos);
}

}  // namespace
}  // namespace ipt

extern "C" std::size_t fwrite(const void* p, std::size_t size, std::size_t n, std::FILE* stream) {
    using Fn = std::size_t (*)(const void*, std::size_t, std::size_t, std::FILE*);
    static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "fwrite"));
    if (ipt::g_fwrite_fails.load()) {
        ++ipt::g_fwrites_failed;
        errno = ENOSPC;
        return 0;
    }
    return real(p, size, n, stream);
}
