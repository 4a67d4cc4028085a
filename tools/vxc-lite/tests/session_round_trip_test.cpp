/* Sessions over loopback: a plain TCP client plays the agent's control
 * connection, registers, takes the start, fetches files and profiles, answers,
 * and sees the modify and the stop. */
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "loopback.h"
#include "session.h"

namespace {

using namespace vxc_test;
using namespace std::chrono_literals;

class Session : public Loopback {
protected:
    void SetUp() override
    {
        Loopback::SetUp();
        files_ = root_ + "/files";
        mkdir(files_.c_str(), 0755);
    }

    void put(const std::string& name, const std::string& content)
    {
        write_file("files/" + name, content);
    }

    /* A file of the files dir: its modification time in seconds, the value
     * the start line gives it as a file keyword, and what the file store's
     * reply header puts behind the keyword. */
    struct stat stat_of(const std::string& name)
    {
        struct stat st {};
        EXPECT_EQ(stat((files_ + "/" + name).c_str(), &st), 0) << name;
        return st;
    }
    std::string mtime(const std::string& name) { return std::to_string(stat_of(name).st_mtime); }
    std::string size(const std::string& name) { return std::to_string(stat_of(name).st_size); }
    std::string encoded(const std::string& name)
    {
        return name + "%3Bsize%3D" + size(name) + "%3Blmd%3D" + mtime(name);
    }
    std::string stored(const std::string& name)
    {
        return "%3Bsize%3D" + size(name) + "%3Blmd%3D" + mtime(name) + "000000;";
    }

    /* Registers ctrl and reads the reply. */
    void register_agent(Client& ctrl)
    {
        ASSERT_TRUE(ctrl.connected());
        ASSERT_TRUE(ctrl.send(kRequest));
        std::string reply;
        ASSERT_TRUE(ctrl.read_line(&reply));
        ASSERT_EQ(reply.rfind("vx_ctrl_msg_rep:result=Ok;", 0), 0u) << reply;
    }

    /* A session without heartbeats that starts at once, its keywords in
     * session.txt, its files in the files dir. */
    vxc::Options session(const std::string& keywords)
    {
        vxc::Options o;
        o.heartbeat_ms = 0;
        o.start_after_ms = 0;
        o.files_dir = files_;
        o.session_file = write_file("session.txt", keywords);
        return o;
    }

    /* Asks for a file keyword or a profile and reads the header and, when it
     * announces a size, exactly that many bytes. */
    void fetch(Client& ctrl, const std::string& request, std::string* header, std::string* body)
    {
        body->clear();
        ASSERT_TRUE(ctrl.send(request));
        ASSERT_TRUE(ctrl.read_line(header));
        size_t at = header->find("%3Bsize%3D"), skip = 10;
        if (at == std::string::npos) at = header->find(";size="), skip = 6;
        if (at == std::string::npos) return;
        const size_t size = std::stoul(header->substr(at + skip));
        ASSERT_TRUE(ctrl.read_bytes(size, body)) << *header;
    }
    static std::string file_req(const std::string& keyword)
    {
        return "vx_control_req:action=send_file;keyword=" + keyword + ";\n";
    }
    static std::string profile_req(const std::string& name)
    {
        return "vx_control_req:action=send_instrumentation_profile;status=running;instrProfile=" +
               name + "\n";
    }

    std::string files_;
};

TEST_F(Session, StartFetchAnswerAndStop)
{
    const std::string rules = "0|1|/shop|x|y|z\n0|0|/cart|x|y|z"; /* no last line feed */
    std::string profile;                                          /* past the send bound */
    for (int i = 0; profile.size() < 3 * 1024 * 1024; ++i)
        profile += "com.shop.Cart.method" + std::to_string(i) + "|1\n";
    put("bt_rules.txt", rules);
    put("entry.txt", "main|1\n");
    put("profile.txt", profile);
    vxc::Options o = session(
        "testIdx=3\nbciInstrSessionPct=100\nBTRuleConfig=@bt_rules.txt\n"
        "VXEntryPointsFile=@entry.txt\ninstrProfile=@profile.txt\nmaxCharInSeqBlob=200\n"
        "klvEpochDiff=1388534400\n");
    o.start_after_ms = 50;
    o.stop_after_ms = 100;
    start(o);

    Client ctrl(port_);
    register_agent(ctrl);
    std::string line;
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=start_instrumentation;status=running;testIdx=3;"
              "bciInstrSessionPct=100;BTRuleConfig=" +
                  encoded("bt_rules.txt") + ";VXEntryPointsFile=" + encoded("entry.txt") +
                  ";numInstrProfile=1;instrProfile=profile.txt;lmd=" + mtime("profile.txt") +
                  ";size=" + std::to_string(profile.size()) +
                  ";maxCharInSeqBlob=200;klvEpochDiff=1388534400;");

    /* Past the stop's time, yet the agent has not answered the start: the
     * stop is held, and what the agent reads next are its files. */
    std::this_thread::sleep_for(300ms);
    std::string header, body;
    fetch(ctrl, file_req("BTRuleConfig"), &header, &body);
    EXPECT_EQ(header, "vx_control_rep:action=file;keyword=BTRuleConfig" + stored("bt_rules.txt"));
    EXPECT_EQ(body, rules);
    fetch(ctrl, file_req("VXEntryPointsFile"), &header, &body);
    EXPECT_EQ(body, "main|1\n");

    fetch(ctrl, profile_req("profile.txt"), &header, &body);
    EXPECT_EQ(header,
              "vx_control_rep:action=instrumentation_profile;instrProfile=profile.txt;size=" +
                  std::to_string(profile.size()) + ";lmd=" + mtime("profile.txt") + "000000;");
    EXPECT_TRUE(body == profile) << "the profile's bytes differ";

    fetch(ctrl, file_req("BTTConfig"), &header, &body);
    EXPECT_EQ(header, "vx_control_rep:action=FailedBTTConfig - " + files_ + "/BTTConfig")
        << "a keyword the session did not name";

    ASSERT_TRUE(
        ctrl.send("vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n"
                  "Timeout has occured while reading response from VXC for 'BTTConfig'\n"));
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=stop_instrumentation;status=stopping;setthresholdTime=0;");
    ASSERT_TRUE(
        ctrl.send("vx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n"
                  "vx_control_req:action=reconnect;heartBeat 0;\n"));
    ASSERT_TRUE(wait_for_text(dir_, "-control.lines", "heartBeat 0;"));
    stop();

    expect_summary(
        "starts_sent=1 stops_sent=1 start_answers=1 stop_answers=1 file_requests=3 "
        "profile_requests=1 files_sent=3 failed_file_replies=1 agent_control_lines=8");
    const std::string log = slurp(dir_ + "/vxc-lite.log");
    EXPECT_NE(log.find("warnings of the start answer: Timeout has occured"), std::string::npos)
        << log;
}

TEST_F(Session, ModifyRenamesFilesAndEveryRegistrationStartsAgain)
{
    put("rules_a.txt", "A");
    put("rules_b.txt", "BB");
    put("entry.txt", "E");
    put("p2.txt", "P2");
    vxc::Options o =
        session("testIdx=4\nBTRuleConfig=@rules_a.txt\nVXEntryPointsFile=@entry.txt\n");
    o.modify_after_ms = 50;
    o.modify_file = write_file("modify.txt", "BTRuleConfig=@rules_b.txt\ninstrProfile=@p2.txt\n");
    start(o);

    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        Client ctrl(port_);
        register_agent(ctrl);
        std::string line, header, body;
        ASSERT_TRUE(ctrl.read_line(&line));
        EXPECT_EQ(line.rfind("vx_control_req:action=start_instrumentation;", 0), 0u) << line;
        ASSERT_TRUE(
            ctrl.send("vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n"));
        ASSERT_TRUE(ctrl.read_line(&line));
        EXPECT_EQ(line, "vx_control_req:action=modify;BTRuleConfig=" + encoded("rules_b.txt") +
                            ";numInstrProfile=1;instrProfile=p2.txt;lmd=" + mtime("p2.txt") +
                            ";size=2;");
        fetch(ctrl, file_req("BTRuleConfig"), &header, &body);
        EXPECT_EQ(body, "BB") << "the modify's file replaces the start's";
        fetch(ctrl, file_req("VXEntryPointsFile"), &header, &body);
        EXPECT_EQ(body, "E") << "a file the modify does not name stays";
        fetch(ctrl, profile_req("/cache/shop/p2.txt"), &header, &body);
        EXPECT_EQ(body, "P2") << "a profile asked by a path is found by its last part";
        ASSERT_TRUE(ctrl.send("vx_control_rep:action=modify;result=Ok;\n"));
        ASSERT_TRUE(wait_for_text(dir_, "-control.lines", "action=modify;result=Ok;"));
    }
    stop();
    expect_summary("starts_sent=2 modifies_sent=2 modify_answers=2 stops_sent=0");
}

TEST_F(Session, ServedPatternRulesDeclareTheirIdsAndStartOnceStartsOneSession)
{
    put("bt_rules.txt",
        "# 7|Commented|5|0|/c|0\n5|64\n7|/shop|4|0|/shop*|0\n7|Gone|6|1|/gone|1\n"
        "7|Few|5|0|/few\n");
    vxc::Options o = session("BTRuleConfig=@bt_rules.txt\n");
    o.start_once = true;
    start(o);
    Client ctrl(port_);
    register_agent(ctrl);
    std::string line, header, body;
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line.rfind("vx_control_req:action=start_instrumentation;", 0), 0u) << line;

    auto record4 = [](int id) {
        return "4,5000,200,10,250000,40," + std::to_string(id) + ",0,,0,-1,1:0_0_0__\n";
    };
    Client data(port_);
    ASSERT_TRUE(data.send(std::string(kOpening) + record4(4)));
    ASSERT_TRUE(wait_for_text(dir_, "-data.lines", "250000,40,4,"));
    /* The start announced the file; its ids count once it is served. */
    fetch(ctrl, file_req("BTRuleConfig"), &header, &body);
    ASSERT_TRUE(data.send(record4(4) + record4(1) + record4(6) + record4(5) + "10,\n"));
    data.shut();
    ASSERT_TRUE(wait_for_text(dir_, "-data.lines", "\n10,\n"));
    /* A later registration gets no start. */
    Client second(port_);
    register_agent(second);
    EXPECT_FALSE(second.read_line(&line, 500ms)) << line;
    stop();

    const std::string malformed = slurp(dir_ + "/malformed.txt");
    EXPECT_EQ(read_lines(dir_ + "/malformed.txt").size(), 2u) << malformed;
    EXPECT_NE(malformed.find("id 4 not declared"), std::string::npos) << malformed;
    EXPECT_NE(malformed.find("id 5 not declared"), std::string::npos)
        << "a commented or refused line declares nothing\n"
        << malformed;
    expect_summary(
        "records=6 undeclared_bt=2 bt_declarations=0 bt.1=Others bt.4=/shop bt.6=Gone "
        "starts_sent=1");
}

TEST_F(Session, RefusedMissingAndDroppedFetches)
{
    put("bt_rules.txt", "R");
    put("entry.txt", "E");
    put("profile.txt", "P");
    vxc::Options o = session(
        "BTRuleConfig=@bt_rules.txt\nVXEntryPointsFile=@entry.txt\nvxMethodMonFile=@missing.txt\n"
        "instrProfile=@profile.txt\ninstrProfile=@nothere.txt\n");
    o.refuse_files = {"BTRuleConfig", "instrProfile"};
    o.drop_during_fetch = "VXEntryPointsFile";
    start(o);

    const std::string refused_rules =
        "vx_control_rep:action=FailedBTRuleConfig - " + files_ + "/bt_rules.txt";
    const std::string refused_profile =
        "vx_control_rep:action=FailedInstrumentationProfile - " + files_ + "/";
    std::string line, header, body;
    {
        Client ctrl(port_);
        register_agent(ctrl);
        ASSERT_TRUE(ctrl.read_line(&line));
        EXPECT_NE(line.find(";vxMethodMonFile=missing.txt%3Bsize%3D1%3Blmd%3D0;"),
                  std::string::npos)
            << line;
        EXPECT_NE(line.find(";instrProfile=nothere.txt;lmd=1;size=1;"), std::string::npos) << line;
        for (int i = 0; i < 2; ++i) {
            fetch(ctrl, file_req("BTRuleConfig"), &header, &body);
            EXPECT_EQ(header, refused_rules) << "refused every time, though present";
        }
        fetch(ctrl, file_req("vxMethodMonFile"), &header, &body);
        EXPECT_EQ(header,
                  "vx_control_rep:action=FailedvxMethodMonFile - " + files_ + "/missing.txt");
        fetch(ctrl, profile_req("profile.txt"), &header, &body);
        EXPECT_EQ(header, refused_profile + "profile.txt");
        ASSERT_TRUE(ctrl.send(file_req("VXEntryPointsFile")));
        EXPECT_TRUE(ctrl.closed_by_peer()) << "the fetch named by --drop-during-fetch";
    }
    /* The agent comes back: a new session, and the dropped fetch is answered. */
    Client again(port_);
    register_agent(again);
    ASSERT_TRUE(again.read_line(&line));
    EXPECT_EQ(line.rfind("vx_control_req:action=start_instrumentation;", 0), 0u) << line;
    fetch(again, file_req("VXEntryPointsFile"), &header, &body);
    EXPECT_EQ(header, "vx_control_rep:action=file;keyword=VXEntryPointsFile" + stored("entry.txt"));
    EXPECT_EQ(body, "E");
    fetch(again, profile_req("nothere.txt"), &header, &body);
    EXPECT_EQ(header, refused_profile + "nothere.txt");
    stop();
    expect_summary(
        "fetches_dropped=1 file_requests=5 profile_requests=2 failed_file_replies=5 "
        "files_sent=1");
}

}  // namespace
