// The Wireshark dissector (packaging/wireshark/commschannel.lua) run by
// tshark on captures of every kind of datagram: encodings made by the
// message classes, written into a pcap file as a loopback capture holds
// them, in this host's byte order and in the other one.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "CommsChannelUnregisterLocatorMessage.h"

#include "PcapCapture.h"
#include "TestUtil.h"

#include <unistd.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::uint16_t RESOLVER = 5000;
const std::uint16_t LOCATOR = 40001;
const std::uint16_t ALPHA = 40011;
const std::uint16_t BETA = 40012;
const std::uint16_t GONE = 40013;
const std::uint16_t STATUS = 40020;
const std::uint16_t STRANGER = 40030;
const std::uint16_t STRANGER_PEER = 40031;
const std::size_t PIECE = 60000;
const std::size_t SPOOLED_BYTES = 59751;
const std::size_t SPLIT_BYTES = 130000;

bool hostIsLittleEndian()
{
    const std::uint32_t one = 1;
    unsigned char first = 0;
    std::memcpy(&first, &one, 1);
    return first == 1;
}

std::string encodingOf(CommsChannelMessage& message)
{
    int length = 0;
    const char* bytes = message.encode(&length);
    EXPECT_NE(nullptr, bytes);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<std::size_t>(length));
}

// Rewrites an encoding of this host into the other byte order, field by
// field, as a host of the other kind would have written it.
class Swapper {
public:
    explicit Swapper(std::string& bytes) : m_bytes(bytes), m_pos(0) {}

    std::uint32_t u32()
    {
        std::uint32_t value = 0;
        std::memcpy(&value, &m_bytes[m_pos], 4);
        swap(4);
        return value;
    }
    void swap(std::size_t size)
    {
        for (std::size_t i = 0; i < size / 2; ++i) {
            std::swap(m_bytes[m_pos + i], m_bytes[m_pos + size - 1 - i]);
        }
        m_pos += size;
    }
    void string() { m_pos += u32(); }
    void skip(std::size_t size) { m_pos += size; }
    unsigned char byte() { return static_cast<unsigned char>(m_bytes[m_pos++]); }

private:
    std::string& m_bytes;
    std::size_t m_pos;
};

std::string swapped(std::string bytes)
{
    if (bytes.size() == 4) {
        Swapper(bytes).u32();
        return bytes;
    }
    Swapper s(bytes);
    s.skip(2);
    const unsigned version = s.byte();
    const unsigned code = s.byte();
    s.u32();
    s.string();
    switch (code) {
    case 1: {
        for (int i = 0; i < 5; ++i) {
            s.string();
        }
        s.swap(8);
        s.swap(4);
        s.swap(4);
        if (s.byte() == 0) {
            s.string();
        } else {
            s.string();
            s.swap(8);
            if (version == 2) {
                s.swap(4);
            }
        }
        break;
    }
    case 2:
    case 3:
        s.swap(4);
        break;
    case 5: {
        const std::uint32_t rows = s.u32();
        for (std::uint32_t i = 0; i < rows; ++i) {
            s.swap(4);
            s.string();
            s.swap(4);
        }
        break;
    }
    case 6:
        s.swap(8);
        break;
    case 7:
        s.swap(8);
        s.swap(4);
        break;
    default:
        ADD_FAILURE() << "no byte swap for type code " << code;
    }
    return bytes;
}

std::string hexOf(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 0xf];
    }
    return out;
}

// The fields that the tests ask tshark for, in this order.
const std::vector<std::string> FIELDS = {
    "kind", "version", "type_code", "total_length", "channel", "source", "callback", "protocol",
    "interface", "remote_context", "request_id", "type", "priority", "data_kind", "length", "data",
    "spool_file", "spool_uid", "spool_path", "name", "port", "row_count", "update_type", "change",
    "status", "pieces", "reason"};

typedef std::map<std::string, std::string> Row;

std::string lineOf(const std::string& frame, const Row& row)
{
    std::string line = frame;
    for (const std::string& field : FIELDS) {
        line += '|';
        const auto it = row.find(field);
        if (it != row.end()) {
            line += it->second;
        }
    }
    for (const auto& entry : row) {
        bool known = false;
        for (const std::string& field : FIELDS) {
            known = known || field == entry.first;
        }
        EXPECT_TRUE(known) << "expected value for a field not asked for: " << entry.first;
    }
    return line;
}

// A capture with every kind of datagram and the lines that tshark should
// print for it, one per message.
struct Scenario {
    std::vector<std::pair<std::pair<std::uint16_t, std::uint16_t>, std::string>> datagrams;
    std::vector<std::string> expected;

    void add(std::uint16_t from, std::uint16_t to, const std::string& payload)
    {
        datagrams.push_back(std::make_pair(std::make_pair(from, to), payload));
    }
    std::string nextFrame() const { return std::to_string(datagrams.size() + 1); }
    void expect(const std::string& frame, const Row& row) { expected.push_back(lineOf(frame, row)); }
};

Scenario everyKind(bool swap)
{
    Scenario sc;
    auto order = [swap](const std::string& bytes) { return swap ? swapped(bytes) : bytes; };

    {
        CommsChannelRegisterLocatorMessage reg;
        reg.setPort(LOCATOR);
        const std::string bytes = encodingOf(reg);
        sc.expect(sc.nextFrame(), {{"kind", "register"}, {"version", "1"}, {"type_code", "2"},
                                   {"total_length", std::to_string(bytes.size())}, {"port", "40001"}});
        sc.add(LOCATOR, RESOLVER, order(bytes));
    }
    {
        CommsChannelLocatorUpdateMessage update;
        update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "alpha", ALPHA);
        update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "beta", BETA);
        update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED, "gone", GONE);
        const std::string bytes = encodingOf(update);
        sc.expect(sc.nextFrame(), {{"kind", "update"}, {"version", "1"}, {"type_code", "5"},
                                   {"total_length", std::to_string(bytes.size())}, {"row_count", "3"},
                                   {"name", "alpha,beta,gone"}, {"port", "40011,40012,40013"},
                                   {"update_type", "0,0,1"}, {"change", "added,added,removed"}});
        sc.add(RESOLVER, LOCATOR, order(bytes));
    }
    {
        CommsChannelPortRequestMessage request;
        request.setChannel("beta");
        request.setRequestId(7);
        const std::string bytes = encodingOf(request);
        sc.expect(sc.nextFrame(), {{"kind", "port_request"}, {"version", "1"}, {"type_code", "6"},
                                   {"total_length", std::to_string(bytes.size())}, {"channel", "beta"},
                                   {"name", "beta"}, {"request_id", "7"}});
        sc.add(LOCATOR, RESOLVER, order(bytes));
    }
    {
        CommsChannelPortResponseMessage response;
        response.setChannel("beta");
        response.setRequestId(7);
        response.setPort(BETA);
        const std::string bytes = encodingOf(response);
        sc.expect(sc.nextFrame(), {{"kind", "port_response"}, {"version", "1"}, {"type_code", "7"},
                                   {"total_length", std::to_string(bytes.size())}, {"channel", "beta"},
                                   {"name", "beta"}, {"request_id", "7"}, {"port", "40012"}});
        sc.add(RESOLVER, LOCATOR, order(bytes));
    }
    {
        CommsChannelDataContainerMessage data;
        data.setChannel("beta");
        data.setSourceChannel("alpha");
        data.setCallbackChannel("alpha-replies");
        data.setProtocol("p");
        data.setInterface("i");
        data.setRemoteContext("r");
        data.setRequestId(5);
        data.setMsgType(2);
        data.setPriority(static_cast<VireoThreadPriority>(3));
        data.setData("xyz", 3);
        const std::string bytes = encodingOf(data);
        sc.expect(sc.nextFrame(), {{"kind", "data"}, {"version", "1"}, {"type_code", "1"},
                                   {"total_length", std::to_string(bytes.size())}, {"channel", "beta"},
                                   {"source", "alpha"}, {"callback", "alpha-replies"}, {"protocol", "p"},
                                   {"interface", "i"}, {"remote_context", "r"}, {"request_id", "5"},
                                   {"type", "2"}, {"priority", "3"}, {"data_kind", "0"}, {"length", "3"},
                                   {"data", "78797a"}});
        sc.add(ALPHA, BETA, order(bytes));
    }
    {
        CommsChannelDataContainerMessage spool;
        spool.setChannel("beta");
        spool.setSourceChannel("alpha");
        spool.setRequestId(-9);
        spool.setMsgType(1);
        const std::string large(SPOOLED_BYTES, 'L');
        spool.setData(large.data(), static_cast<int>(large.size()));
        spool.putDataToFile();
        EXPECT_TRUE(spool.hasDataFile());
        const std::vector<std::string> files = cctest::spoolFilesOfThisProcess();
        EXPECT_EQ(1U, files.size());
        const std::string file = files.empty() ? std::string() : files[0];
        const std::string bytes = encodingOf(spool);
        // Reading the encoding back takes the file away again.
        std::unique_ptr<CommsChannelMessage> back(
            CommsChannelMessageCreator().decodeMessage(bytes.data(), static_cast<unsigned>(bytes.size())));
        EXPECT_NE(nullptr, back);
        const std::string uid = std::to_string(geteuid());
        sc.expect(sc.nextFrame(), {{"kind", "spool"}, {"version", "2"}, {"type_code", "1"},
                                   {"total_length", std::to_string(bytes.size())}, {"channel", "beta"},
                                   {"source", "alpha"}, {"request_id", "-9"}, {"type", "1"}, {"priority", "1"},
                                   {"data_kind", "1"}, {"length", std::to_string(SPOOLED_BYTES)},
                                   {"spool_file", file}, {"spool_uid", uid},
                                   {"spool_path", "/tmp/commschannel-spool-" + uid + "/" + file}});
        sc.add(ALPHA, BETA, order(bytes));
    }
    {
        // Data beyond one datagram, as a sender sends it: pieces of 60000
        // bytes, the last one shorter. Shown once, in the last piece's frame.
        CommsChannelDataContainerMessage big;
        big.setChannel("alpha");
        big.setSourceChannel("beta");
        big.setRequestId(11);
        std::string payload(SPLIT_BYTES, '\0');
        for (std::size_t i = 0; i < payload.size(); ++i) {
            payload[i] = static_cast<char>(i * 7 + 3);
        }
        big.setData(payload.data(), static_cast<int>(payload.size()));
        const std::string bytes = order(encodingOf(big));
        std::size_t pieces = 0;
        for (std::size_t at = 0; at < bytes.size(); at += PIECE) {
            sc.add(BETA, ALPHA, bytes.substr(at, PIECE));
            ++pieces;
        }
        EXPECT_EQ(3U, pieces);
        sc.expect(std::to_string(sc.datagrams.size()),
                  {{"kind", "data"}, {"version", "1"}, {"type_code", "1"},
                   {"total_length", std::to_string(bytes.size())}, {"channel", "alpha"}, {"source", "beta"},
                   {"request_id", "11"}, {"type", "0"}, {"priority", "1"}, {"data_kind", "0"},
                   {"length", std::to_string(SPLIT_BYTES)}, {"data", hexOf(payload)},
                   {"pieces", std::to_string(pieces)}});
    }
    {
        // The receiver's wake-up, from its status port to itself.
        const std::uint32_t removed = 1;
        std::string bytes(4, '\0');
        std::memcpy(&bytes[0], &removed, 4);
        sc.expect(sc.nextFrame(), {{"kind", "status"}, {"status", "1"}});
        sc.add(STATUS, STATUS, order(bytes));
    }
    {
        // Traffic of some other protocol, and a header with a type code
        // that no encoding has: not taken for CommsChannel's.
        sc.add(STRANGER, STRANGER_PEER, "hello, world");
        std::string unknownType("\xCC\x5E\x01\x04\x0c\x00\x00\x00\x00\x00\x00\x00", 12);
        sc.add(STRANGER, STRANGER_PEER, unknownType);
    }
    {
        // A datagram shorter than the header, to a port that the resolver
        // named a channel's: it would end that process's receiving.
        sc.expect(sc.nextFrame(), {{"kind", "undecodable"},
                                   {"reason", "shorter than the 8-byte header (3 bytes): "
                                              "ends the receiving of the destination process"}});
        sc.add(GONE, BETA, "abc");
    }
    {
        // A register encoding of a version that no build reads.
        CommsChannelRegisterLocatorMessage reg;
        reg.setPort(LOCATOR);
        std::string bytes = encodingOf(reg);
        bytes[2] = 3;
        sc.expect(sc.nextFrame(), {{"kind", "undecodable"}, {"version", "3"}, {"type_code", "2"},
                                   {"total_length", std::to_string(bytes.size())},
                                   {"reason", "cannot read message encoding version 3 (message type 2)"}});
        sc.add(LOCATOR, RESOLVER, order(bytes));
    }
    {
        CommsChannelUnregisterLocatorMessage unreg;
        unreg.setPort(LOCATOR);
        const std::string bytes = encodingOf(unreg);
        sc.expect(sc.nextFrame(), {{"kind", "unregister"}, {"version", "1"}, {"type_code", "3"},
                                   {"total_length", std::to_string(bytes.size())}, {"port", "40001"}});
        sc.add(LOCATOR, RESOLVER, order(bytes));
    }
    return sc;
}

std::string shellQuote(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

// Runs a shell command; answers its exit status and standard output.
std::pair<int, std::string> run(const std::string& command)
{
    std::string output;
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return std::make_pair(-1, output);
    }
    char buffer[65536];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        output.append(buffer, got);
    }
    const int status = pclose(pipe);
    return std::make_pair(WIFEXITED(status) ? WEXITSTATUS(status) : -1, output);
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

class WiresharkDissector : public testing::Test {
protected:
    void SetUp() override
    {
        const std::pair<int, std::string> found = run("command -v tshark");
        if (found.first != 0 || found.second.empty()) {
            GTEST_SKIP() << "tshark is not installed (Debian package tshark): the dissector cannot be run";
        }
        char pattern[] = "/tmp/cc-dissector-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        m_dir = pattern;
    }

    void TearDown() override
    {
        if (!m_dir.empty()) {
            run("rm -rf " + shellQuote(m_dir));
        }
    }

    std::string writeCapture(const Scenario& scenario, const std::string& name)
    {
        const std::string path = m_dir + "/" + name;
        cctest::PcapCapture capture(path);
        for (const auto& datagram : scenario.datagrams) {
            capture.add(datagram.first.first, datagram.first.second, datagram.second);
        }
        EXPECT_TRUE(capture.close()) << path;
        return path;
    }

    // Runs tshark with the dissector on a capture. Its own settings live in
    // a scratch home, so that a copy of the dissector among the user's
    // plugins cannot load twice.
    std::vector<std::string> tshark(const std::string& capture, const std::vector<std::string>& options,
                                    const std::string& filter, const std::vector<std::string>& fields)
    {
        std::string command = "env HOME=" + shellQuote(m_dir) + " XDG_CONFIG_HOME=" + shellQuote(m_dir) +
                              " tshark -n -r " + shellQuote(capture) +
                              " -X lua_script:" + shellQuote(COMMSCHANNEL_DISSECTOR_PATH);
        for (const std::string& option : options) {
            command += " -o " + shellQuote(option);
        }
        command += " -Y " + shellQuote(filter) + " -T fields -E separator='|' -E occurrence=a -E aggregator=,";
        for (const std::string& field : fields) {
            command += " -e " + field;
        }
        command += " 2>" + shellQuote(m_dir + "/tshark.err");
        const std::pair<int, std::string> result = run(command);
        EXPECT_EQ(0, result.first) << command << "\n" << cctest::readFile(m_dir + "/tshark.err");
        return splitLines(result.second);
    }

    std::vector<std::string> messageLines(const std::string& capture, const std::vector<std::string>& options)
    {
        std::vector<std::string> fields = {"frame.number"};
        for (const std::string& field : FIELDS) {
            fields.push_back("commschannel." + field);
        }
        return tshark(capture, options, "commschannel.kind", fields);
    }

    void expectLines(const std::vector<std::string>& expected, const std::vector<std::string>& actual)
    {
        ASSERT_EQ(expected.size(), actual.size()) << "tshark printed:\n" << joined(actual);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(expected[i], actual[i]) << "message " << i + 1;
        }
    }

    static std::string joined(const std::vector<std::string>& lines)
    {
        std::string out;
        for (const std::string& line : lines) {
            out += line.substr(0, 400) + "\n";
        }
        return out;
    }

    std::string m_dir;
};

const char* const LITTLE = "commschannel.byte_order:little-endian";
const char* const BIG = "commschannel.byte_order:big-endian";

TEST_F(WiresharkDissector, ShowsEveryKindOfACaptureInThisHostsByteOrder)
{
    const Scenario scenario = everyKind(false);
    const std::string capture = writeCapture(scenario, "native.pcap");
    expectLines(scenario.expected, messageLines(capture, {}));
}

TEST_F(WiresharkDissector, ShowsEveryKindOfACaptureInTheOtherByteOrder)
{
    const Scenario scenario = everyKind(true);
    const std::string capture = writeCapture(scenario, "swapped.pcap");
    expectLines(scenario.expected, messageLines(capture, {}));
}

TEST_F(WiresharkDissector, ByteOrderPreferenceReadsEachOrderAsSet)
{
    const bool little = hostIsLittleEndian();
    const Scenario native = everyKind(false);
    const Scenario other = everyKind(true);
    const std::string nativeCapture = writeCapture(native, "native.pcap");
    const std::string otherCapture = writeCapture(other, "swapped.pcap");
    expectLines(native.expected, messageLines(nativeCapture, {little ? LITTLE : BIG}));
    expectLines(other.expected, messageLines(otherCapture, {little ? BIG : LITTLE}));
}

TEST_F(WiresharkDissector, HeuristicsTriedFirstShowTheSameMessages)
{
    const Scenario scenario = everyKind(false);
    const std::string capture = writeCapture(scenario, "native.pcap");
    expectLines(scenario.expected, messageLines(capture, {"udp.try_heuristic_first:TRUE"}));
}

TEST_F(WiresharkDissector, WrongByteOrderPreferenceShowsUndecodableResolverTraffic)
{
    // A register read in the wrong order has a total length that does not
    // fit its datagram: shown as undecodable rather than as made-up values.
    const bool little = hostIsLittleEndian();
    Scenario scenario;
    CommsChannelRegisterLocatorMessage reg;
    reg.setPort(LOCATOR);
    scenario.add(LOCATOR, RESOLVER, encodingOf(reg));
    const std::string capture = writeCapture(scenario, "native.pcap");
    const std::vector<std::string> lines =
        tshark(capture, {little ? BIG : LITTLE}, "commschannel", {"commschannel.kind"});
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ("undecodable", lines[0]);
}

TEST_F(WiresharkDissector, PiecesOfASplitEncodingPointToTheFrameThatJoinsThem)
{
    const Scenario scenario = everyKind(false);
    const std::string capture = writeCapture(scenario, "native.pcap");
    // The pieces are frames 7 to 9 of the scenario, joined in frame 9.
    const std::vector<std::string> pieces = tshark(
        capture, {}, "commschannel.piece", {"frame.number", "commschannel.piece", "commschannel.total_length"});
    ASSERT_EQ(2U, pieces.size());
    const std::string total = std::to_string(60000 * 2 + scenario.datagrams[8].second.size());
    EXPECT_EQ("7|1|" + total, pieces[0]);
    EXPECT_EQ("8|2|", pieces[1]);
    const std::vector<std::string> joined =
        tshark(capture, {}, "commschannel.pieces", {"frame.number", "commschannel.piece_frame"});
    ASSERT_EQ(1U, joined.size());
    EXPECT_EQ("9|7,8,9", joined[0]);
}

TEST_F(WiresharkDissector, MalformedEncodingsToAChannelAreUndecodableWithTheReason)
{
    Scenario scenario;
    CommsChannelLocatorUpdateMessage update;
    update.addChannelEntry(CommsChannelLocatorUpdateMessage::CHANNEL_ADDED, "beta", BETA);
    const std::string updateBytes = encodingOf(update);
    scenario.add(RESOLVER, LOCATOR, updateBytes);

    // One byte more than the fields use.
    CommsChannelDataContainerMessage data;
    data.setChannel("beta");
    data.setData("xyz", 3);
    std::string longer = encodingOf(data) + "!";
    const std::uint32_t longerTotal = static_cast<std::uint32_t>(longer.size());
    std::memcpy(&longer[4], &longerTotal, 4);
    scenario.add(ALPHA, BETA, longer);

    // A header whose total length is below its own size.
    std::string tiny = longer.substr(0, 8);
    const std::uint32_t four = 4;
    std::memcpy(&tiny[4], &four, 4);
    scenario.add(ALPHA, BETA, tiny);

    // An update that announces more rows than its bytes can hold.
    std::string rows = updateBytes;
    const std::uint32_t many = 1000;
    std::memcpy(&rows[12], &many, 4);
    scenario.add(RESOLVER, LOCATOR, rows);

    const std::string capture = writeCapture(scenario, "malformed.pcap");
    const std::vector<std::string> lines = tshark(capture, {}, "commschannel.kind == \"undecodable\"",
                                                  {"frame.number", "commschannel.reason"});
    const std::vector<std::string> expected = {
        "2|1 byte left over after the last field",
        "3|total length 4 is below the 8-byte header: ends the receiving of the destination process",
        "4|1000 rows cannot fit in the " + std::to_string(updateBytes.size() - 16) + " bytes left"};
    expectLines(expected, lines);
}

TEST_F(WiresharkDissector, OtherUdpTrafficIsLeftAlone)
{
    const Scenario scenario = everyKind(false);
    const std::string capture = writeCapture(scenario, "native.pcap");
    const std::vector<std::string> lines =
        tshark(capture, {}, "udp.port == 40031", {"frame.number", "commschannel.kind", "commschannel.reason"});
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("11||", lines[0]);
    EXPECT_EQ("12||", lines[1]);
}

} // namespace
