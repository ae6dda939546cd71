// mme-sim as its users run it: the binary itself in a scratch directory,
// with real WAV files: the demo's report, play, record, formats, the trace
// switches, progress, the timeline report, and every error: one line on
// stderr, a non-zero status, nothing half-written left behind.
#include "host/portcls/HostPortCls.h"
#include "support/DriverImage.h"
#include "usbsim/Profile.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <fstream>
#include <pty.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using usbsim::DeviceProfile;

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

struct Result {
    int code = -1;
    std::string out, err;
};

// A scratch directory the program runs in; its output is captured apart.
class MmeSim : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/mme_sim_test.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        io = pattern;
        dir = io + "/run";
        fs::create_directory(dir);
    }
    void TearDown() override { fs::remove_all(io); }

    Result run(const std::vector<std::string>& args) {
        std::string command = "cd '" + dir + "' && '" MME_SIM_PATH "'";
        for (const auto& a : args)
            command += " '" + a + "'";
        const int status = std::system((command + " >'" + io + "/out' 2>'" + io + "/err'").c_str());
        return Result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(io + "/out"),
                      slurp(io + "/err")};
    }
    std::string path(const std::string& name) const { return dir + "/" + name; }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.insert(e.path().filename().string());
        return names;
    }
    // A one-line error on stderr and nothing on it but that.
    static void expectOneLineError(const Result& r, int code, const std::string& text) {
        EXPECT_EQ(r.code, code) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.err.rfind("mme-sim: error: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(text), std::string::npos) << r.err;
    }
    static void expectIn(const std::string& text, const std::vector<std::string>& parts) {
        for (const auto& part : parts)
            EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    }
    std::string dir, io;
};

// Left-justified 32-bit samples of a `bits`-bit signal (what sf_readf_int
// hands out), never zero.
std::vector<int> noise(size_t count, unsigned bits, uint32_t seed) {
    std::vector<int> out(count);
    uint32_t x = seed * 2654435761u + 7;
    for (auto& s : out) {
        x = x * 1664525u + 1013904223u;
        const uint32_t v = x & ~((1u << (32 - bits)) - 1);
        s = int(v ? v : 1u << (32 - bits));
    }
    return out;
}

bool writeWav(const std::string& file, int rate, int channels, int subtype,
              const std::vector<int>& samples) {
    SF_INFO info{0, rate, channels, SF_FORMAT_WAV | subtype, 0, 0};
    SNDFILE* f = sf_open(file.c_str(), SFM_WRITE, &info);
    const sf_count_t frames = sf_count_t(samples.size() / size_t(channels));
    return f && sf_writef_int(f, samples.data(), frames) == frames && sf_close(f) == 0;
}

struct Wav {
    SF_INFO info{};
    std::vector<int> samples;
};
Wav readWav(const std::string& file) {
    Wav w;
    if (SNDFILE* f = sf_open(file.c_str(), SFM_READ, &w.info)) {
        w.samples.resize(size_t(w.info.frames) * size_t(w.info.channels));
        sf_readf_int(f, w.samples.data(), w.info.frames);
        sf_close(f);
    }
    return w;
}

// ---- The demo, loopback and the trace ----

TEST_F(MmeSim, DemoPrintsTheFormatsAndABitExactLoopback) {
    Result r = run({});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    expectIn(
        r.out,
        {"Capture pin 0 offers:", "Render pin 2 offers:",
         "  48000        8 (or 2/4/6)         16, 24",
         "for a stereo client (2 channels, 16-32 bits, 48000 Hz): 48000 Hz, 2 channels, 24-bit",
         "  periods moved  render ", "  glitches       0 render, 0 capture overruns",
         "  latency        2212 frames = 46.08 ms at 48000 Hz", "measured 2212 frames",
         "  result         PASS: bit-exact", "  teardown       device removed",
         hostpc::driverImage().empty() ? "  driver         host build linked into mme-sim"
                                       : "  driver         Windows image " + hostpc::driverImage(),
         "loopback: 1.0 of 2.0 s\n"}); // stdout is a file: progress as plain lines
    EXPECT_EQ(r.out.find("the port in the open-source library's ways") != std::string::npos,
              hostpc::defaultPortPersonality() == hostpc::PortPersonality::OpenSource);
    EXPECT_EQ(r.out.find('\r'), std::string::npos);
    EXPECT_EQ(r.out.find("MME: ("), std::string::npos) << "no driver trace";
    EXPECT_TRUE(files().empty()) << "the demo writes no file";
}

// The driver's trace goes only where it is asked for: a file, or stderr.
TEST_F(MmeSim, LoopbackAtOtherFormatsIsBitExactToo) {
    // A 32-channel device too: its test signal comes from the one-cycle table.
    nlohmann::json wide = DeviceProfile::builtInDefault().toJson();
    for (auto& itf : wide["configurations"][0]["interfaces"])
        for (auto& alt : itf["altSettings"])
            if (alt["channels"] != 0)
                alt["channels"] = 32;
    wide["hardware"]["inCH"] = wide["hardware"]["outCH"] = 32;
    wide["accept"]["maxInChannels"] = wide["accept"]["maxOutChannels"] = 32;
    std::ofstream(path("wide.json")) << wide.dump(2);
    std::map<std::string, Result> runs;
    for (std::vector<std::string> args :
         std::vector<std::vector<std::string>>{{"44100/2/16", "--trace", "trace.txt"},
                                               {"96000/2/24", "--verbose"},
                                               {"192000/4/16"},
                                               {"192000/32/24", "--device", "wide.json"},
                                               {"96000/32/16", "--device", "wide.json"}}) {
        args.insert(args.begin(), "--format");
        args.insert(args.end(), {"loopback", "--seconds", "0.5"});
        Result& r = runs[args[1]] = run(args);
        EXPECT_EQ(r.code, 0) << args[1] << ": " << r.err;
        EXPECT_NE(r.out.find("PASS: bit-exact"), std::string::npos) << args[1] << "\n" << r.out;
    }
    expectIn(slurp(path("trace.txt")),
             {"MME: (", "MMEWave::NewStream", "MMEWaveStream::SetNotificationFreq interval:10"});
    EXPECT_EQ(runs["44100/2/16"].out.find("MME: ("), std::string::npos);
    EXPECT_EQ(runs["44100/2/16"].err.find("MME: ("), std::string::npos);
    EXPECT_NE(runs["96000/2/24"].err.find("MMEWave::NewStream"), std::string::npos);
}

TEST_F(MmeSim, ProgressIsABarOnATerminal) {
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::execl(MME_SIM_PATH, MME_SIM_PATH, "loopback", "--seconds", "2", (char*)nullptr);
        ::_exit(127);
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;)
        text.append(buffer, size_t(n));
    ::close(master);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("\rloopback [##############################]"), std::string::npos) << text;
    EXPECT_EQ(text.find("loopback: 1.0 of"), std::string::npos) << "no plain lines on a terminal";
}

// ---- play, record, formats ----

TEST_F(MmeSim, PlayWritesWhatReachesTheDeviceByTheConversionRules) {
    for (int bits : {16, 24}) {
        SCOPED_TRACE(std::to_string(bits) + "-bit file");
        const size_t frames = 30000;
        const auto sent = noise(frames * 2, unsigned(bits), unsigned(bits));
        ASSERT_TRUE(writeWav(path("in.wav"), 44100, 2,
                             bits == 16 ? SF_FORMAT_PCM_16 : SF_FORMAT_PCM_24, sent));
        Result r = run({"play", "in.wav", "--out", "device.wav"});
        ASSERT_EQ(r.code, 0) << r.err;
        expectIn(r.out, {"  played         30000 frames", "  glitches       0\n"});
        Wav device = readWav(path("device.wav"));
        EXPECT_EQ(device.info.samplerate, 44100) << "the hardware followed the stream's rate";
        EXPECT_EQ(device.info.channels, 8);
        EXPECT_EQ(device.info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_24);
        ASSERT_EQ(device.info.frames, sf_count_t(frames));
        // The device's 24-bit sample, left-justified, is the file's sample.
        size_t wrong = 0;
        for (size_t f = 0; f < frames; ++f)
            for (size_t c = 0; c < 8; ++c)
                wrong += device.samples[f * 8 + c] != (c < 2 ? sent[f * 2 + c] : 0);
        EXPECT_EQ(wrong, 0u);
        EXPECT_EQ(files(), (std::set<std::string>{"device.wav", "in.wav"}));
        fs::remove(path("device.wav"));
    }
    Result r = run({"play", "in.wav"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("  played         30000 frames"), std::string::npos) << r.out;
    EXPECT_EQ(files(), (std::set<std::string>{"in.wav"})) << "without --out nothing is written";
}

TEST_F(MmeSim, RecordGivesBackWhatTheDeviceHeardFromAFileOrAGenerator) {
    const auto input = noise(2 * 48000, 24, 5);
    ASSERT_TRUE(writeWav(path("in.wav"), 48000, 2, SF_FORMAT_PCM_24, input));
    for (int bits : {24, 16}) {
        SCOPED_TRACE(std::to_string(bits) + "-bit stream");
        Result r = run({"record", "out.wav", "--seconds", "0.5", "--input", "in.wav", "--format",
                        "48000/2/" + std::to_string(bits)});
        ASSERT_EQ(r.code, 0) << r.err;
        Wav out = readWav(path("out.wav"));
        EXPECT_EQ(out.info.samplerate, 48000);
        EXPECT_EQ(out.info.channels, 2);
        ASSERT_EQ(out.info.frames, 24000);
        // Capture keeps the top bits of the device's samples.
        const int mask = bits == 24 ? int(0xFFFFFF00u) : int(0xFFFF0000u);
        size_t wrong = 0;
        for (size_t i = 0; i < 24000 * 2; ++i)
            wrong += out.samples[i] != (input[i] & mask);
        EXPECT_EQ(wrong, 0u);
    }
    Result r = run({"record", "sine.wav", "--seconds", "1.5", "--generator", "sine:1000:0.25"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("record: 1.0 of 1.5 s"), std::string::npos) << r.out;
    Wav out = readWav(path("sine.wav"));
    ASSERT_EQ(out.info.frames, 72000) << "1.5 s at the hardware's 48000 Hz";
    EXPECT_EQ(out.info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_24);
    int peak = 0;
    for (int s : out.samples)
        peak = std::max(peak, std::abs(s / 256));
    EXPECT_NEAR(double(peak) / 8388607.0, 0.25, 0.005);
}

TEST_F(MmeSim, FormatsShowsThePinsAndValidatesAFormat) {
    Result table = run({"formats"});
    EXPECT_EQ(table.code, 0);
    EXPECT_NE(table.out.find("  192000       8 (or 2/4/6)         16, 24"), std::string::npos)
        << table.out;
    Result accepted = run({"formats", "--format", "96000/2/24"});
    EXPECT_EQ(accepted.code, 0) << accepted.err;
    EXPECT_NE(accepted.out.find("  capture  accepted\n  render   accepted"), std::string::npos)
        << accepted.out;
    Result refused = run({"formats", "--format", "48000/2/32"});
    expectOneLineError(refused, 1, "the driver refuses 48000/2/32");
    EXPECT_NE(refused.out.find("capture  refused when opened: STATUS_NOT_SUPPORTED: "
                               "\"pinSupportsSettingEx returned false (less channels)\""),
              std::string::npos)
        << refused.out;
    auto locked = DeviceProfile::builtInDefault();
    locked.digitalLockHz = locked.hardware.fr = 44100;
    std::ofstream(path("locked.json")) << locked.toJson().dump(2);
    Result digital = run({"formats", "--device", "locked.json", "--format", "48000/2/24"});
    EXPECT_EQ(digital.code, 1);
    expectIn(digital.out,
             {"digital input locked at 44100 Hz", "samplerate not allowed requested/digital"});
}

// ---- Errors ----

TEST_F(MmeSim, EachMistakeIsOneLineWithItsExitStatusAndLeavesNoFileBehind) {
    nlohmann::json j = DeviceProfile::builtInDefault().toJson();
    j["hardware"]["fr"] = "fast";
    std::ofstream(path("bad.json")) << j.dump(2);
    j = DeviceProfile::builtInDefault().toJson();
    j["hardwear"] = j["hardware"];
    std::ofstream(path("typo.json")) << j.dump(2);
    // The USB driver's own refusal, with its reason from the profile.
    auto profile = DeviceProfile::builtInDefault();
    usbsim::RefusalRule rule;
    rule.fr = 96000;
    rule.reason = "the clock does not lock at 96 kHz";
    profile.accept.refuse.push_back(rule);
    std::ofstream(path("refuse96.json")) << profile.toJson().dump(2);
    fs::create_directory(path("folder.wav"));
    std::ofstream(path("notes.wav")) << "not audio at all\n";
    ASSERT_TRUE(writeWav(path("in.wav"), 44100, 2, SF_FORMAT_PCM_16, noise(2000, 16, 4)));
    ASSERT_TRUE(writeWav(path("u8.wav"), 48000, 2, SF_FORMAT_PCM_U8, noise(200, 8, 1)));
    ASSERT_TRUE(writeWav(path("float.wav"), 48000, 2, SF_FORMAT_FLOAT, noise(200, 16, 1)));
    ASSERT_TRUE(writeWav(path("mono.wav"), 48000, 1, SF_FORMAT_PCM_16, noise(4800, 16, 2)));
    ASSERT_TRUE(writeWav(path("hi.wav"), 96000, 2, SF_FORMAT_PCM_16, noise(2 * 9600, 16, 3)));
    const std::set<std::string> inputs = files();
    const struct {
        std::vector<std::string> args;
        int code;
        const char* error;
    } cases[] = {
        {{"--format", "48000/2"}, 2, "use rate/channels/bits"},
        {{"loopback", "--format", "48000/2/20"}, 2, "16-, 24- or 32-bit PCM"},
        {{"--seconds", "-1"}, 2, "--seconds"},
        {{"loopback", "--stall", "3"}, 2, "--stall \"3\": use AT:SECONDS"},
        {{"loopback", "--unplug", "1:0"}, 2, "--unplug \"1:0\": use AT[:REPLUG_AFTER]"},
        {{"play", "in.wav", "--sleep", "2"}, 2, "--sleep \"2\": use AT:SECONDS"},
        {{"formats", "--unplug", "1"}, 2, "--unplug and --sleep are for the streaming commands"},
        {{"dance"}, 2, "dance"},
        {{"record", "r.wav", "--generator", "noise"}, 2, "--generator"},
        {{"loopback", "--report", "no/such/dir/r.html"},
         1,
         "no/such/dir/r.html: cannot write the report"},
        {{"record", "no/such/dir/r.wav", "--seconds", "0.5"},
         1,
         "no/such/dir/r.wav: cannot be written"},
        {{"play", "in.wav", "--format", "48000/2/24"}, 1, "does not match in.wav (44100/2/16)"},
        {{"--device", "bad.json"}, 1, "bad profile: hardware.fr:"},
        {{"formats", "--device", "typo.json"}, 1, "hardwear"},
        {{"--device", "absent.json"}, 1, "cannot open the profile file"},
        {{"--driver", "missing.sys"}, 1, "cannot load the driver image missing.sys: cannot open"},
        {{"play", "missing.wav", "--out", "x.wav"}, 1, "missing.wav: no such file"},
        {{"play", "folder.wav", "--out", "x.wav"}, 1, "folder.wav: is a directory"},
        {{"play", "notes.wav", "--out", "x.wav"}, 1, "not a sound file"},
        {{"play", "u8.wav", "--out", "x.wav"}, 1, "unsupported WAV: 8-bit unsigned PCM"},
        {{"play", "float.wav", "--out", "x.wav"}, 1, "unsupported WAV: 32-bit float"},
        {{"play", "mono.wav", "--out", "device.wav"},
         1,
         "the driver refused render at 48000/1/16: STATUS_NOT_SUPPORTED: "
         "\"pinSupportsSettingEx returned false (less channels)\""},
        {{"loopback", "--format", "48000/3/16"},
         1,
         "the driver refused capture at 48000/3/16: STATUS_NOT_SUPPORTED"},
        {{"record", "rec.wav", "--seconds", "1", "--format", "22050/2/16"},
         1,
         "the driver refused capture at 22050/2/16"},
        {{"play", "hi.wav", "--device", "refuse96.json", "--out", "device.wav"},
         1,
         "the driver refused to start render at 96000/2/16"},
    };
    Result r;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : ""));
        expectOneLineError(r = run(c.args), c.code, c.error);
    }
    EXPECT_NE(r.err.find("(USB driver: the clock does not lock at 96 kHz"), std::string::npos)
        << r.err;
    if (::geteuid() != 0) { // root reads whatever the mode says
        fs::permissions(path("in.wav"), fs::perms::none);
        expectOneLineError(run({"play", "in.wav"}), 1, "in.wav: cannot be read");
    }
    EXPECT_EQ(files(), inputs);
    Result help = run({"--help"});
    EXPECT_EQ(help.code, 0);
    expectIn(help.out, {"--trace", "Exit status"});
}

TEST_F(MmeSim, TheDriverOptionRunsTheWindowsImage) {
    std::vector<uint8_t> image;
    if (!imagetest::readDriverImage(&image))
        GTEST_SKIP() << "no Windows build of the driver";
    std::ofstream(path("half.sys"), std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), std::streamsize(image.size() / 2));
    expectOneLineError(run({"--driver", "half.sys"}), 1, "cannot load the driver image half.sys: ");
    Result r = run({"loopback", "--seconds", "0.5", "--driver", imagetest::driverImagePath()});
    EXPECT_EQ(r.code, 0) << r.err;
    expectIn(r.out, {"  result         PASS: bit-exact",
                     "  driver         Windows image " + imagetest::driverImagePath()});
}

// ---- Soak and the timeline report ----

// The JSON a report carries, as other tools would read it.
nlohmann::json reportData(const std::string& html) {
    const std::string open = "id=\"mme-timeline\">\n";
    const size_t begin = html.find(open);
    const size_t end = html.find("\n</script>", begin);
    if (begin == std::string::npos || end == std::string::npos)
        return nlohmann::json();
    return nlohmann::json::parse(html.substr(begin + open.size(), end - begin - open.size()),
                                 nullptr, false);
}

uint64_t numberAfter(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    return at == std::string::npos ? uint64_t(-1) : std::stoull(text.substr(at + label.size()));
}

TEST_F(MmeSim, ASoakOfMillionsOfFramesStaysBitExactAndOnTheClock) {
    // 3.84 million frames of eight channels, in virtual time.
    Result r = run({"--format", "192000/8/24", "loopback", "--seconds", "20"});
    EXPECT_EQ(r.code, 0) << r.err;
    expectIn(r.out, {"  result         PASS: bit-exact, 30737696 samples",
                     "  glitches       0 render, 0 capture overruns",
                     "  position       largest deviation of an update from the period clock: "
                     "render 0, capture 0 frames",
                     "  serviced late  n/a"});
}

TEST_F(MmeSim, ALongRunKeepsABoundedSampleWithTheWindowsThatMatter) {
    // 22500 periods; the client stalls 60 s in, long enough for its queues to run out.
    Result r = run({"loopback", "--seconds", "120", "--stall", "60:1.5", "--report", "r.html"});
    EXPECT_EQ(r.code, 3) << "a stalled client breaks the loopback\n" << r.err;
    const nlohmann::json data = reportData(slurp(path("r.html")));
    ASSERT_TRUE(data.is_object());
    EXPECT_EQ(data["schema"], "mme-sim-timeline/1");
    const uint64_t periods = data["periods"];
    const auto& rows = data["rows"];
    ASSERT_GT(rows.size(), 6000u);
    EXPECT_LE(rows.size(), 6000u + 32 * 801) << "head, tail and windows only";
    EXPECT_GT(periods, 22500u);
    ASSERT_EQ(data["columns"][0], "period");
    ASSERT_EQ(data["columns"][13], "glitches");
    for (size_t i = 0; i < 3000; ++i) {
        ASSERT_EQ(rows[i][0], i) << "the first periods, all of them";
        ASSERT_EQ(rows[rows.size() - 1 - i][0], periods - 1 - i) << "the last ones too";
    }
    // The first glitch with the hundred periods either side of it.
    const uint64_t first = data["soak"]["firstGlitchPeriod"];
    EXPECT_GT(first, 11250u) << "not before the stall";
    EXPECT_EQ(data["soak"]["glitches"], numberAfter(r.out, "  glitches       "));
    size_t around = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        const uint64_t period = rows[i][0];
        ASSERT_TRUE(i == 0 || rows[i - 1][0] < period);
        around += period + 100 >= first && period <= first + 100;
    }
    EXPECT_EQ(around, 201u);
}

TEST_F(MmeSim, TheReportShowsTheRunAsChromiumRendersIt) {
    const char* chromium = "/usr/bin/chromium";
    if (::access(chromium, X_OK) != 0)
        GTEST_SKIP() << "chromium is not installed (scripts/setup.sh installs it)";
    // Chromium reserves terabytes of address space up front; under a limit
    // (the mutation runner sets one) it cannot start, whatever the report holds.
    rlimit as{};
    if (::getrlimit(RLIMIT_AS, &as) == 0 && as.rlim_cur != RLIM_INFINITY)
        GTEST_SKIP() << "chromium cannot start under an address-space limit";
    // A glitch (the client stalls 1.5 s from 1.5 s on) and an ASIO client
    // that comes at period 40 and goes at period 60.
    nlohmann::json asio = DeviceProfile::builtInDefault().toJson();
    asio["schedule"] = {{{"period", 40}, {"event", "asioAttach"}},
                        {{"period", 60}, {"event", "asioDetach"}}};
    std::ofstream(path("asio.json")) << asio.dump(2);
    Result r = run({"--device", "asio.json", "loopback", "--seconds", "3", "--stall", "1.5:1.5",
                    "--report", "report.html"});
    ASSERT_EQ(r.code, 3) << r.err;
    const nlohmann::json data = reportData(slurp(path("report.html")));
    ASSERT_TRUE(data.is_object());
    const std::string flags = std::string(chromium) +
                              " --headless --no-sandbox --disable-gpu --no-first-run "
                              "--disable-background-networking --disable-component-update "
                              "--disable-sync --hide-scrollbars --user-data-dir=" +
                              path("chromium-profile") + " ";
    const std::string page = " file://" + path("report.html");
    ASSERT_EQ(std::system(("timeout 120 " + flags + "--dump-dom" + page + " >" + path("dom.html") +
                           " 2>/dev/null")
                              .c_str()),
              0);
    const std::string dom = slurp(path("dom.html"));
    ASSERT_NE(dom.find("data-rendered=\"yes\""), std::string::npos) << "the script ran";

    const uint64_t periods = data["periods"];
    EXPECT_EQ(data["rows"].size(), periods) << "a short run is kept whole";
    expectIn(dom, {"<tr data-key=\"periods\"><th>periods</th><td>" + std::to_string(periods) +
                       "</td></tr>",
                   "periods 0\u2013" + std::to_string(periods - 1)});
    // Glitch marks: one per period that had any, as many as the port counted.
    std::set<uint64_t> want, marked;
    for (const auto& row : data["rows"])
        if (row[13] != 0)
            want.insert(uint64_t(row[0]));
    uint64_t counted = 0;
    const std::regex glitch(
        "<g class=\"mark glitch\" data-period=\"(\\d+)\" data-count=\"(\\d+)\"");
    for (std::sregex_iterator it(dom.begin(), dom.end(), glitch), end; it != end; ++it) {
        marked.insert(std::stoull((*it)[1]));
        counted += std::stoull((*it)[2]);
    }
    ASSERT_FALSE(marked.empty());
    EXPECT_EQ(marked, want);
    EXPECT_EQ(counted, numberAfter(r.out, "  glitches       "));
    EXPECT_GE(*marked.begin(), 281u) << "not before the client stalled";
    EXPECT_EQ(*marked.begin(), uint64_t(data["soak"]["firstGlitchPeriod"]));
    // The ASIO client's visit where the profile put it, with its labels.
    for (const auto& [period, label] : std::vector<std::pair<int, std::string>>{
             {40, "ASIO attached"}, {60, "ASIO detached"}, {40, "MME detached"}}) {
        const std::regex event(
            "<g class=\"mark event \\w+\" data-period=\"" + std::to_string(period) +
            "\" data-kind=\"\\w+\"><line[^>]*></line><text[^>]*>" + label + "</text>");
        EXPECT_TRUE(std::regex_search(dom, event)) << label << " at period " << period;
    }
    // What a person sees, kept for CI.
    fs::create_directories(MME_ARTIFACT_DIR);
    const std::string shot = std::string(MME_ARTIFACT_DIR) + "/timeline-report.png";
    EXPECT_EQ(std::system(("timeout 120 " + flags + "--window-size=1240,1040 --screenshot=" + shot +
                           page + " >/dev/null 2>&1")
                              .c_str()),
              0);
    EXPECT_GT(slurp(shot).size(), 10000u);
}

// ---- The device's life ----

// An unplug, replug or sleep that the scenario asks for is no error: the
// pins answer as a Windows client expects, the client lets go of the old
// device and carries on with the new one or after the wake, and the report
// marks it all. Audio that stops unasked says what the USB driver did.
TEST_F(MmeSim, UnpluggedRepluggedOrAsleepTheClientCarriesOn) {
    nlohmann::json detach = DeviceProfile::builtInDefault().toJson();
    detach["schedule"] = {{{"period", 200}, {"event", "mmeDetach"}},
                          {{"period", 200}, {"event", "preventFurtherCalls"}}};
    std::ofstream(path("detach.json")) << detach.dump(2);
    ASSERT_TRUE(writeWav(path("in.wav"), 48000, 2, SF_FORMAT_PCM_16, noise(2 * 48000, 16, 6)));
    const std::string pins = "    render       write -> STATUS_DEVICE_REMOVED, position read -> "
                             "frame 71936, walked to STOP -> STATUS_SUCCESS, closed\n    capture  "
                             "    position read -> frame 71936, read -> 0 frames still queued, "
                             "walked to STOP -> STATUS_SUCCESS, closed\n    device       removed "
                             "once the client closed its pins and filter\n";
    const std::set<std::string> unplugged = {"unplug", "removal", "replug"};
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> out;
        std::set<std::string> events;
        const char* result;
    } cases[] = {
        {{"--unplug", "1.5:0.5", "loopback", "--seconds", "4"},
         {"  unplugged      at period 281 (1.50 s)\n" + pins +
              "  replugged      after 0.50 s and streaming again from period 376\n",
          "  before unplug  bit-exact up to it, 143872 samples\n",
          "  result         PASS: bit-exact after the replug, 195912 samples"},
         unplugged,
         "PASS"},
        {{"--realtime", "--unplug", "0.5:0.2", "loopback", "--seconds", "1.2"},
         {"  replugged      after 0.20 s", "PASS: bit-exact after the replug"},
         unplugged,
         "PASS"},
        {{"--sleep", "1.5:1", "loopback", "--seconds", "4"},
         {"  slept          1.00 s from period 281 (1.50 s), resumed at period 469\n",
          "  frames lost    0 at the sleep: ", "  result         PASS: bit-exact, 388424 samples",
          "from the period clock: render 0, capture 0 frames"},
         {"suspend", "resume"},
         "PASS"},
        {{"--unplug", "0.5:0.25", "play", "in.wav"},
         {"  played         48000 frames"},
         unplugged,
         "done"},
        {{"--unplug", "0.5", "record", "r.wav", "--seconds", "2"},
         {"  replugged      no: the command ended early\n", "  recorded       24064 frames"},
         {"unplug", "removal"},
         "done"},
        {{"--device", "detach.json", "loopback", "--seconds", "3"}, {}, {}, "error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--report", "life.html"});
        const Result r = run(args);
        if (c.events.empty())
            expectOneLineError(r, 1,
                               "error: the device stopped moving audio: capture reached 51200 of "
                               "146212 frames; the USB driver detached the MME side at period "
                               "200 and forbade further calls\n");
        else
            EXPECT_EQ(r.code, 0) << r.err;
        expectIn(r.out, c.out);
        const nlohmann::json data = reportData(slurp(path("life.html")));
        ASSERT_TRUE(data.is_object());
        EXPECT_EQ(data["result"], c.result);
        const std::set<std::string> life = {"unplug", "removal", "replug", "suspend", "resume"};
        std::set<std::string> kinds;
        for (const auto& e : data["events"])
            if (life.count(e["kind"]))
                kinds.insert(e["kind"]);
        EXPECT_EQ(kinds, c.events);
        uint64_t absent = 0; // rows are kept whole in runs this short
        for (const auto& row : data["rows"])
            absent += row[data["columns"].size() - 1] == 0;
        EXPECT_EQ(absent, data["soak"]["absent"]);
        EXPECT_EQ(absent > 0, !c.events.empty());
    }
}

} // namespace
