// The firmware upgrade through the bootloader, on the real binary against the
// virtual MCU: whole transcripts, and the image the MCU received.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <string>

#include "harness.h"

using harness::id_row;
using harness::link_name;
using harness::normalize;
using harness::open_lines;
using harness::RunResult;
using harness::Stats;
using harness::stats_block;
using harness::TempDir;
using harness::Vmcu;

namespace {

std::string random_image(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s)
        c = static_cast<char>(gen() & 0xFF);
    return s;
}

// Eight little-endian 16-bit upgrade parameters as a hex payload.
std::string timeretry(unsigned prog_ms, unsigned retries, unsigned pksize, unsigned erase_s = 20,
                      unsigned crc_s = 2, unsigned app_s = 2, unsigned boot_s = 2,
                      unsigned msg_ms = 500) {
    std::string hex;
    char buf[16];
    for (unsigned v : {prog_ms, retries, pksize, erase_s, crc_s, app_s, boot_s, msg_ms}) {
        snprintf(buf, sizeof buf, "%02X%02X", v & 0xFFu, (v >> 8) & 0xFFu);
        hex += buf;
    }
    return hex;
}

// The progress field: three blanks, then each new percentage over the last.
std::string progress(unsigned length, unsigned pksize) {
    std::string s = "   ";
    unsigned count = 0;
    unsigned long long last = 0;
    char buf[32];
    while (count < length) {
        count += std::min(pksize, length - count);
        unsigned long long pct = 100ull * count / length;
        if (pct > last) {
            snprintf(buf, sizeof buf, "\b\b\b%02llu%%", pct);
            s += buf;
            last = pct;
        }
    }
    return s;
}

const char kParams[] =
    "step 0: get firmware program info ... msg->timems: 500, program->timems: 1000, retry: 3, "
    "pksize: 240\n\terases: 20, crcs: 2, apps: 2, boots: 2\n\n";

struct Expect {
    unsigned length = 1000;
    unsigned pksize = 240;
    unsigned flash = 1048576;
    bool fw_only = false;
    unsigned chunk_sends = 0;   // chunk transmissions, when more than the chunks
    unsigned resent_bytes = 0;  // payload bytes of those extra transmissions
};

// The transcript of a successful upgrade, statistics included.
std::string success_transcript(const Vmcu& mcu, const std::string& file, const Expect& e,
                               const std::string& params = kParams) {
    unsigned chunks = (e.length + e.pksize - 1) / e.pksize;
    bool spi = mcu.link() == Vmcu::kSpi;
    std::string t = open_lines(mcu) + "file " + file + " size " + std::to_string(e.length) +
                    " bytes\n" + params;
    if (!e.fw_only)
        t += "step 1: get app flash size ...  " + std::to_string(e.flash) +
             " bytes\nstep 2: enter bootload ... OK\n";
    t += "step 3: request upgrade ... OK\nstep 4: erase flash ... OK\nstep 5: program flash ... " +
         progress(e.length, e.pksize) +
         " OK\nstep 6: check CRC ...  OK\nstep 7: jump to app ... OK\nupgrade " + file +
         " successfully\n";
    // On SPI a request counts as sent once, when it succeeds; on a TTY every
    // transmission counts.
    unsigned sends = (!spi && e.chunk_sends) ? e.chunk_sends : chunks;
    Stats s;
    s.tx_bytes = (e.fw_only ? 0 : 4) + 4 + e.length + 1 + (spi ? 0 : e.resent_bytes);
    s.tx_pkts = (e.fw_only ? 5 : 7) + sends;
    s.tx_rows = (e.fw_only ? "" : id_row(0xd1, 1) + id_row(0xd6, 1)) + id_row(0xd7, 1) +
                id_row(0xd8, 1) + id_row(0xd9, sends) + id_row(0xdc, 1) + id_row(0xdd, 1) +
                id_row(0xde, 1);
    unsigned acks = (e.fw_only ? 4 : 5) + chunks;
    s.rx_pkts = (e.fw_only ? 1 : 2) + acks;
    s.rx_bytes = 16 + (e.fw_only ? 0 : 4) + (spi ? acks : 0);
    if (spi)
        s.rx_rows = (e.fw_only ? "" : id_row(0xd1, 1) + id_row(0xd6, 1)) + id_row(0xd7, 1) +
                    id_row(0xd8, 1) + id_row(0xd9, chunks) + id_row(0xdc, 1) + id_row(0xdd, 1) +
                    id_row(0xde, 1);
    else
        s.rx_rows = (e.fw_only ? "" : id_row(0xd6, 1)) + id_row(0xde, 1) + id_row(0xfe, acks);
    return t + stats_block(s);
}

class Upgrade : public testing::TestWithParam<Vmcu::Link> {
protected:
    TempDir dir;
};

TEST_P(Upgrade, ImageArrivesByteForByte) {
    std::string image = random_image(1000, 1);
    std::string file = dir.write("app.bin", image);
    Vmcu mcu(GetParam(), {"--image", dir.file("received.bin")});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(normalize(r.out), success_transcript(mcu, file, Expect()));
    mcu.stop();
    EXPECT_EQ(harness::read_file(dir.file("received.bin")), image);
    EXPECT_EQ(mcu.log("RESET "), std::vector<std::string>{"2"});
    EXPECT_EQ(mcu.log("CRC "), std::vector<std::string>{"ok"});
}

TEST_P(Upgrade, FirmwareOnlySkipsFlashSizeAndReset) {
    std::string image = random_image(1000, 2);
    std::string file = dir.write("app.bin", image);
    Vmcu mcu(GetParam(), {"--image", dir.file("received.bin")});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade-fw", file});
    Expect e;
    e.fw_only = true;
    EXPECT_EQ(normalize(r.out), success_transcript(mcu, file, e));
    mcu.stop();
    EXPECT_EQ(harness::read_file(dir.file("received.bin")), image);
    EXPECT_EQ(mcu.log("RESET ").size(), 0u);
}

TEST_P(Upgrade, SilentParameterQueryFallsBackOnTheLowBounds) {
    std::string image = random_image(1000, 3);
    std::string file = dir.write("app.bin", image);
    Vmcu mcu(GetParam(), {"--image", dir.file("received.bin"), "--rule", "DE:silent*0"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string params;
    for (int i = 0; i < 4; i++)
        params += "step 0: get firmware program info ... TIMEOUT\n";
    params +=
        "low message timeout ms: 0, using default: 500\n"
        "low program timeout ms: 0, using default: 1000\n"
        "low program retry: 0, using default: 2\n"
        "low program pksize: 0, using default: 240\n"
        "low erase timeouts: 0, using default: 20\n"
        "low check crc timeouts: 0, using default: 2\n"
        "low runapp timeouts: 0, using default: 2\n"
        "low bootloader timeouts: 0, using default: 2\n";
    std::string want = success_transcript(mcu, file, Expect(), params);
    // Four unanswered attempts of three transmissions each (on a TTY each
    // counts), and no parameter reply.
    std::string tx_params = id_row(0xde, 1), rx_params = id_row(0xde, 1);
    if (GetParam() == Vmcu::kTty) {
        want.replace(want.find("TX Packets:  "), 21, "TX Packets:        23");
        want.replace(want.find(tx_params), tx_params.size(), id_row(0xde, 12));
    } else {
        want.replace(want.find("TX Packets:  "), 21, "TX Packets:        11");
        want.replace(want.find(tx_params), tx_params.size(), "");
    }
    want.replace(want.find("RX Bytes:    "), 21,
                 GetParam() == Vmcu::kTty ? "RX Bytes:           4" : "RX Bytes:          14");
    want.replace(want.find("RX Packets:  "), 21, "RX Packets:        11");
    want.replace(want.rfind(rx_params), rx_params.size(), "");
    EXPECT_EQ(normalize(r.out), want);
    mcu.stop();
    EXPECT_EQ(harness::read_file(dir.file("received.bin")), image);
}

TEST_P(Upgrade, OutOfRangeParametersAreLimited) {
    std::string file = dir.write("app.bin", random_image(1000, 4));
    // 499 ms, 1 retry, 65535-byte chunks on a TTY is a valid setting but not
    // on SPI, so the chunk size here stays in range and is raised instead.
    Vmcu mcu(GetParam(), {"--timeretry", timeretry(3001, 7, 239, 61, 1, 7, 0, 1501)});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string params =
        "step 0: get firmware program info ... msg->timems: 1501, program->timems: 3001, retry: "
        "7, pksize: 239\n\terases: 61, crcs: 1, apps: 7, boots: 0\n\n"
        "large message timeout ms: 1501, using default: 1500\n"
        "large program timeout ms: 3001, using default: 3000\n"
        "large program retry: 7, using default: 6\n"
        "low program pksize: 239, using default: 240\n"
        "large erase timeouts: 61, using default: 60\n"
        "low check crc timeouts: 1, using default: 2\n"
        "large runapp timeouts: 7, using default: 6\n"
        "low bootloader timeouts: 0, using default: 2\n";
    EXPECT_EQ(normalize(r.out), success_transcript(mcu, file, Expect(), params));
}

TEST_P(Upgrade, FlashSizeAnsweredAtTheFourthAttempt) {
    std::string file = dir.write("app.bin", random_image(1000, 5));
    Vmcu mcu(GetParam(), {"--rule", "D6:silent*9"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string out = normalize(r.out);
    std::string step1;
    for (int i = 0; i < 3; i++)
        step1 += "step 1: get app flash size ... TIMEOUT\n";
    step1 += "step 1: get app flash size ...  1048576 bytes\nstep 2: enter bootload ... OK\n";
    EXPECT_NE(out.find(std::string(kParams) + step1), std::string::npos) << out;
    EXPECT_NE(out.find("upgrade " + file + " successfully\n"), std::string::npos) << out;

    // A fourth silence ends the run before anything changed on the MCU.
    Vmcu silent(GetParam(), {"--rule", "D6:silent*0"});
    ASSERT_TRUE(silent.ok());
    r = silent.run_tool({"--upgrade", file});
    out = normalize(r.out);
    std::string head = open_lines(silent) + "file " + file + " size 1000 bytes\n" + kParams;
    for (int i = 0; i < 4; i++)
        head += "step 1: get app flash size ... TIMEOUT\n";
    head += "mcu_upgrade #, mcu_upgradeFirmare fail\n";
    EXPECT_EQ(out.substr(0, head.size()), head);
    silent.stop();
    EXPECT_EQ(silent.log("RESET ").size(), 0u);
}

TEST_P(Upgrade, ImageLargerThanTheFlashIsRefusedBeforeTheReset) {
    std::string file = dir.write("app.bin", random_image(1001, 6));
    Vmcu mcu(GetParam(), {"--flash-size", "1000"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    Stats s;
    s.tx_pkts = 2;
    s.tx_rows = id_row(0xd6, 1) + id_row(0xde, 1);
    s.rx_pkts = 2;
    s.rx_bytes = 20;
    s.rx_rows = id_row(0xd6, 1) + id_row(0xde, 1);
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + "file " + file + " size 1001 bytes\n" + kParams +
                                    "step 1: get app flash size ...  1000 bytes\n"
                                    "mcu_upgradeFirmare #, firmware too large 1001 > 1000\n"
                                    "mcu_upgrade #, mcu_upgradeFirmare fail\n" +
                                    stats_block(s));
    mcu.stop();
    EXPECT_EQ(mcu.log("RESET ").size(), 0u);
}

TEST_P(Upgrade, RefusedCrcCheckEndsTheRunWithoutStartingTheApp) {
    std::string file = dir.write("app.bin", random_image(1000, 7));
    Vmcu mcu(GetParam(), {"--rule", "DC:nak"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string out = normalize(r.out);
    std::string tail = progress(1000, 240) +
                       " OK\nstep 6: check CRC ... FAIL\nmcu_upgrade #, mcu_upgradeFirmare fail\n";
    if (GetParam() == Vmcu::kSpi)
        tail = progress(1000, 240) +
               " OK\nstep 6: check CRC ... mcu_sendrecv #, msgid: 0xdc, seq: 11, result failed: "
               "1\nFAIL\nmcu_upgrade #, mcu_upgradeFirmare fail\n";
    EXPECT_NE(out.find("step 5: program flash ... " + tail + "====="), std::string::npos) << out;
    EXPECT_EQ(out.find("step 7"), std::string::npos);
    EXPECT_EQ(out.find("successfully"), std::string::npos);
    mcu.stop();
    EXPECT_EQ(mcu.log("APP_GO ").size(), 0u);
}

TEST_P(Upgrade, ChunkTimeoutNamesTheBytePosition) {
    std::string file = dir.write("app.bin", random_image(1000, 8));
    Vmcu mcu(GetParam(), {"--rule", "D9:ack*2", "--rule", "D9:silent*0"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string out = normalize(r.out);
    EXPECT_NE(out.find("step 5: program flash ...    \b\b\b24%\b\b\b48%"
                       "mcu_programFlash #, mcu_sendrecv 480 / 1000 timeout\nTIMEOUT\n"
                       "mcu_upgrade #, mcu_upgradeFirmare fail\n====="),
              std::string::npos)
        << out;
    mcu.stop();
    // Retransmissions of the third chunk only; nothing after it.
    std::vector<std::string> rx = mcu.log("RX ");
    ASSERT_GE(rx.size(), 4u);
    EXPECT_EQ(rx.back().substr(12, 2), "D9");
    EXPECT_EQ(mcu.log("CRC ").size(), 0u);
}

TEST_P(Upgrade, LostAcknowledgementIsRetransmittedAndStoredOnce) {
    std::string image = random_image(1000, 9);
    std::string file = dir.write("app.bin", image);
    Vmcu mcu(GetParam(),
             {"--image", dir.file("received.bin"), "--rule", "D9:ack", "--rule", "D9:noack"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    Expect e;
    e.chunk_sends = 6;
    e.resent_bytes = 240;
    std::string want = success_transcript(mcu, file, e);
    EXPECT_EQ(normalize(r.out), want);
    mcu.stop();
    EXPECT_EQ(harness::read_file(dir.file("received.bin")), image);
    EXPECT_EQ(mcu.log("DUP ").size(), 1u);
}

TEST_P(Upgrade, FileProblemsEndTheRunBeforeAnyStep) {
    Vmcu mcu(GetParam());
    ASSERT_TRUE(mcu.ok());
    std::string empty = dir.write("empty.bin", "");
    RunResult r = mcu.run_tool({"--upgrade", empty});
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + "mcu_upgrade #, file_size " + empty + " fail\n" +
                                    stats_block(Stats()));
    std::string missing = dir.file("missing.bin");
    r = mcu.run_tool({"--upgrade", missing});
    EXPECT_EQ(normalize(r.out), open_lines(mcu) + "file_size #, stat " + missing +
                                    " fail : No such file or directory\n"
                                    "mcu_upgrade #, file_size " +
                                    missing + " fail\n" + stats_block(Stats()));
    r = mcu.run_tool({"--upgrade", dir.path()});
    EXPECT_EQ(normalize(r.out).substr(open_lines(mcu).size()),
              "file " + dir.path() + " size 4096 bytes\nread_file #, read " + dir.path() +
                  " fail : Is a directory\nmcu_upgrade #, read fail ret = -1\n" +
                  stats_block(Stats()));
    // A kernel attribute file reports a size of 4096 and reads short.
    const char* shortfile = "/sys/devices/system/cpu/online";
    struct stat st;
    if (stat(shortfile, &st) == 0 && st.st_size == 4096) {
        std::string content = harness::read_file(shortfile);
        r = mcu.run_tool({"--upgrade", shortfile});
        EXPECT_EQ(normalize(r.out), open_lines(mcu) + "file " + shortfile +
                                        " size 4096 bytes\nmcu_upgrade #, read " +
                                        std::to_string(content.size()) +
                                        " byte except 4096 byte\n" + stats_block(Stats()));
    }
    mcu.stop();
    EXPECT_EQ(mcu.log("RX ").size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Links, Upgrade, testing::Values(Vmcu::kTty, Vmcu::kSpi), link_name);

// ---- large images ------------------------------------------------------------

// A chunk of 64990 bytes makes a frame of 65000, the most one TTY write
// carries; that is the largest chunk size that works on a TTY.
TEST(UpgradeLarge, OneMebibyteWithTheLargestChunks) {
    TempDir dir;
    std::string image = random_image(1 << 20, 10);
    std::string file = dir.write("app.bin", image);
    Vmcu mcu(Vmcu::kTty, {"--image", dir.file("received.bin"), "--flash-size", "2097152",
                          "--timeretry", timeretry(1000, 3, 64990)});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string out = normalize(r.out);
    EXPECT_NE(out.find("step 5: program flash ... " + progress(1 << 20, 64990) + " OK\n"),
              std::string::npos)
        << out.substr(0, 2000);
    EXPECT_NE(out.find(id_row(0xd9, 17)), std::string::npos);
    mcu.stop();
    EXPECT_TRUE(harness::read_file(dir.file("received.bin")) == image);
}

// The chunk size may go up to 65000 bytes, a frame of 65010, but a TTY write
// takes at most 65000 bytes: the first chunk is refused before anything of it
// is written, and the upgrade fails at step 5.
TEST(UpgradeLarge, ChunkSizeOf65000DoesNotFitOneTtyWrite) {
    TempDir dir;
    std::string file = dir.write("app.bin", random_image(70000, 12));
    Vmcu mcu(Vmcu::kTty, {"--timeretry", timeretry(1000, 3, 65000)});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file});
    std::string out = normalize(r.out);
    EXPECT_NE(out.find("step 5: program flash ...    mcu_write #, illegal fd, buf or length 65010\n"
                       "mcu_send #, send 65010 bytes fail\n"
                       "mcu_sendrecv #, mcu send fail: -1\n"
                       "mcu_programFlash #, mcu_sendrecv 0 / 70000 fail\n"
                       "FAIL\n"
                       "mcu_upgrade #, mcu_upgradeFirmare fail\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("TX Fail:            1\n"), std::string::npos);
    mcu.stop();
    for (const std::string& f : mcu.log("RX "))
        EXPECT_NE(f.substr(12, 2), "D9");
}

TEST(UpgradeLarge, OneMebibyteWithTheSmallestChunks) {
    TempDir dir;
    std::string image = random_image(1 << 20, 11);
    std::string file = dir.write("app.bin", image);
    Vmcu mcu(Vmcu::kTty, {"--image", dir.file("received.bin"), "--exit-after", "0"});
    ASSERT_TRUE(mcu.ok());
    RunResult r = mcu.run_tool({"--upgrade", file}, "0xA", 300);
    std::string out = normalize(r.out);
    EXPECT_NE(out.find("step 5: program flash ... " + progress(1 << 20, 240) + " OK\n"),
              std::string::npos)
        << out.substr(0, 2000);
    EXPECT_NE(out.find(id_row(0xd9, 4370)), std::string::npos);
    mcu.stop();
    EXPECT_TRUE(harness::read_file(dir.file("received.bin")) == image);
}

}  // namespace
