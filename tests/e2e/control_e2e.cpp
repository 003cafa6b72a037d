/* What an operator is told by tpgctl, and what he can have done; the socket behind it. */

#include "daemons.h"
#include "tpg_ctl_i.h"
#include "world.h"

#include <poll.h>
#include <regex>

static const std::string CARD = "1.3.6.1.4.1.32473.2", CELL = CARD + ".10.1.1.1.1.",
                         SWITCH = CARD + ".11.1.1.2.1.";
static constexpr int VAR = 101, ALARM_VAR = 200;

/* The program's output, behind its exit status when that is not 0. */
static std::string ctl(const words_t& words)
{
    proc_t proc = proc_start("tpgctl", runner() + words_t{TPGCTL_BIN} + words);
    const int status = proc_end(&proc, 0);
    return (status == 0 ? "" : std::to_string(status) + " ") + read_file(proc.output) +
           read_file(proc.log);
}

static std::string masked(std::string text)
{
    const std::pair<const char*, const char*> masks[] = {
        {R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)", "DATE"},
        {R"(\d+\.\d{3}\b)", "MS"},
        {R"("uptime_s":\d+)", "\"uptime_s\":UP"}};
    for (const auto& [mask, name] : masks) {
        text = std::regex_replace(text, std::regex(mask), name);
    }
    return text;
}

/* A slot's part of the document, with what changes masked. */
static std::string slot_status(int slot)
{
    const std::string text = masked(ctl({"status", "--json"}));
    const size_t begin = text.find("{\"slot\":" + std::to_string(slot) + ",");
    return begin == std::string::npos ? "" : text.substr(begin, text.find("}}", begin) + 2 - begin);
}

/* The part about the daemon of one that is master, or refers to slot 3. */
static std::string slot_of(int slot, const std::string& daemon, const std::string& traps)
{
    const std::string number = std::to_string(slot), role = slot == 3 ? "master" : "reference";
    return "{\"slot\":" + number + R"(,"product":"demo","family":"DEMO","version":"1.1.0",)" +
           R"("serial":"","role":")" + role +
           R"(","master_slot":3,"source":"library","tables":2,"rows":8,"daemon":{)" + daemon +
           "},\"traps\":{" + traps + "}}";
}

static std::string daemon_of(const std::string& state, int requests, int failures, int waiting,
                             bool answered, const std::string& error)
{
    const std::string ms = answered ? "MS" : "null";
    return R"("state":")" + state + R"(","since":"DATE","requests":)" + std::to_string(requests) +
           ",\"failures\":" + std::to_string(failures) + ",\"waiting\":" + std::to_string(waiting) +
           ",\"ms_median\":" + ms + ",\"ms_max\":" + ms +
           ",\"last_error\":" + (error.empty() ? "null" : "\"DATE " + error + "\"");
}

class Control : public World
{
  protected:
    void TearDown() override
    {
        World::TearDown();
        daemons_end(&d);
        EXPECT_FALSE(std::filesystem::exists(TPG_CTL_PATH));
    }
    /* Cards that are not asked yet; returns the connection of the last. */
    int start(const std::vector<int>& slots)
    {
        card_files("demo", document("ports"));
        agents_start(&w);
        int fd = -1;
        for (const int slot : slots) {
            flash_folder("DEMO", slot);
            daemon_play(&d, slot);
            fd = client_connect();
            EXPECT_TRUE(
                client_update_acked(fd, client_update(TPG_MSG_LIBMIB_REGISTER, slot, "demo", "DEMO",
                                                      1, std::string(CARDS) + "/libmib_demo.so")));
            EXPECT_TRUE(wait_for([&] { return !slot_status(slot).empty(); }));
        }
        EXPECT_TRUE(wait_for([] { return get(SWITCH + "3") == "INTEGER: 2"; }));
        return fd;
    }
    daemons_t d;
};

TEST_F(Control, TellsHungDeadAndSlowCardsApart)
{
    const int fd = start({3, 4, 5, 6});
    const std::string idle = daemon_of("idle", 0, 0, 0, false, ""),
                      no_traps = R"("sent":0,"kept_back":0)";
    for (const int slot : {3, 6}) {
        EXPECT_EQ(slot_status(slot), slot_of(slot, idle, no_traps));
    }
    daemon_play(&d, 3, {.delay = 30});
    daemon_play(&d, 4, {.usual = deed::lose});
    proc_t hung = snmp_start("snmpget", {SNMPD, CELL + "4"});
    EXPECT_TRUE(wait_for([&] { return daemon_view(&d, 4).busy; }));
    EXPECT_EQ(slot_status(4), slot_of(4, daemon_of("connected", 1, 0, 1, false, ""), no_traps));
    EXPECT_EQ(gets(CELL, "3 5"), "INTEGER: " + std::to_string(daemon_value(&d, 3, VAR, 0)) +
                                     ", INTEGER: " + std::to_string(daemon_value(&d, 5, VAR, 0)));
    const std::string slow = ctl({"status", "--json"});
    std::smatch times;
    EXPECT_TRUE(std::regex_search(slow, times,
                                  std::regex(R"re("ms_median":([\d.]+),"ms_max":([\d.]+))re")));
    EXPECT_GE(std::stod(times[1]), 28); /* of a step's middle */
    EXPECT_GE(std::stod(times[2]), 30);
    EXPECT_EQ(masked(slow).substr(0, masked(slow).find('[')),
              R"({"board":"3100KX","version":"1.0.0","uptime_s":UP,"log_level":6,)"
              R"("master":{"connected":true,"since":"DATE"},"slots":)");
    /* Its end is seen before anybody asks. */
    daemon_close(&d, 5, true);
    EXPECT_TRUE(wait_for([] { return has(slot_status(5), "\"down\""); }));
    EXPECT_EQ(get(CELL + "5"), "genError");
    EXPECT_EQ(
        slot_status(5),
        slot_of(5, daemon_of("down", 2, 1, 0, true, "the request could not be sent"), no_traps));
    EXPECT_EQ(said(snmp_end(&hung)), "genError");
    EXPECT_EQ(slot_status(4),
              slot_of(4, daemon_of("silent", 1, 1, 0, false, "no answer in time"), no_traps));
    daemon_play(&d, 6, {.error = 3});
    EXPECT_EQ(get(CELL + "6"), "genError");
    EXPECT_EQ(set(SWITCH + "6", "i", "1"), "");
    client_send(fd, notify(6, ALARM_VAR, 1) + notify(6, ALARM_VAR, 0));
    EXPECT_TRUE(wait_for([] { return has(slot_status(6), R"("sent":1,"kept_back":1)"); }));
    EXPECT_TRUE(has(slot_status(6), "the daemon answered with error 3"));
    const std::string table = ctl({"status"});
    EXPECT_TRUE(std::regex_search(
        table, std::regex("\n   4 demo    DEMO   1\\.1\\.0   -      of 3   library      2/8 silent "
                          "\\d+s +1 +1 +0 +- +- +0 +0\n")))
        << table;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 120U) << line;
    }
    proc_end(&w.snmpd, SIGKILL);
    EXPECT_TRUE(wait_for([] { return has(ctl({"status"}), "\nmaster not connected since 20"); }));
}

TEST_F(Control, DoesWhatItIsTold)
{
    EXPECT_EQ(ctl({"status"}), "3 tpgctl: no agent is running\n");
    const int mute = unix_socket(TPG_CTL_PATH, true);
    proc_t asking = proc_start("tpgctl", runner() + words_t{TPGCTL_BIN, "status"});
    const int asked_here = accept(mute, nullptr, nullptr);
    char question[64];
    EXPECT_GT(recv(asked_here, question, sizeof(question), 0), 0);
    close(asked_here);
    EXPECT_EQ(proc_end(&asking, 0), 3);
    close(mute);
    remove(TPG_CTL_PATH);
    const int fd = start({3});
    EXPECT_EQ(ctl({"log", "debug"}) + ctl({"trace", "readcb,trap"}), "");
    EXPECT_TRUE(log_has(w, "log level 7, it was 6"));
    EXPECT_TRUE(log_has(w, "trace tokens: readcb,trap"));
    client_send(fd, "x");
    EXPECT_TRUE(log_has(w, "tpg_svr_conn_readcb(): enter"));
    EXPECT_EQ(ctl({"log", "3"}) + ctl({"trace"}), "");
    EXPECT_TRUE(log_has(w, "log level 3, it was 7"));
    EXPECT_TRUE(has(ctl({"status", "--json"}), "\"log_level\":3,"));
    EXPECT_EQ(ctl({"log", "9"}),
              "1 tpgctl: a log level is a number from 3 (errors) to 7 (debug)\n");
    for (const words_t& wrong : std::vector<words_t>{
             {}, {"stat"}, {"status", "-x"}, {"log"}, {"log", "loud"}, {"reload", "x"}}) {
        EXPECT_TRUE(ctl(wrong).starts_with("2 usage: tpgctl status"));
    }
    EXPECT_TRUE(ctl({"--help"}).starts_with("usage: "));
    EXPECT_EQ(ctl({"--version"}), "tpgctl 1.0.0\n");

    card_library("demo", "demo", numbered_document(CARD, 10)); /* the card has a new library */
    EXPECT_EQ(ctl({"reload", "3"}), "slot 3: master of slot 3, tables: 1, document: library\n");
    EXPECT_TRUE(wait_for([] { return get(CARD + ".10.1.1.3") == "INTEGER: 3"; }));
    EXPECT_EQ(ctl({"reload", "4"}), "1 tpgctl: there is no card in the slot\n");
    card_library("demo", "demo", "{ not a document");
    EXPECT_EQ(ctl({"reload", "3"}),
              "1 tpgctl: its tables could not be registered, the log says why\n");
    EXPECT_TRUE(has(slot_status(3), R"("role":null,"master_slot":null,"source":null,"tables":0,)"));
    card_library("demo", "demo", document("ports"));
    EXPECT_EQ(ctl({"reload", "3"}), "slot 3: master of slot 3, tables: 2, document: library\n");
    daemon_play(&d, 3, {.usual = deed::late});
    proc_t asked = snmp_start("snmpset", {SNMPD, CELL + "3", "i", "7"});
    EXPECT_TRUE(wait_for([&] { return daemon_view(&d, 3).busy; }));
    EXPECT_EQ(ctl({"reload", "3"}), "1 tpgctl: a SET is being carried out, try again\n");
    daemon_release(&d, 3);
    EXPECT_EQ(said(snmp_end(&asked)), "INTEGER: 7");
}

/* All that comes of what is sent, until the agent ends the connection or time is up. */
static std::string told(const std::string& path, std::string_view bytes, bool ends = true)
{
    const int fd = unix_socket(path);
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (ends) {
        shutdown(fd, SHUT_WR);
    }
    std::string text;
    char part[4096];
    pollfd input = {fd, POLLIN, 0};
    for (ssize_t n = 1; n > 0 && poll(&input, 1, SECONDS * 1000) == 1;) {
        n = recv(fd, part, sizeof(part), 0);
        text.append(part, n > 0 ? static_cast<size_t>(n) : 0);
    }
    close(fd);
    return text;
}

TEST_F(Control, SurvivesWhateverComes)
{
    namespace fs = std::filesystem;
    fs::create_directories(std::string(TPG_CTL_PATH) + "/in_the_way");
    tpg_start(&w);
    EXPECT_TRUE(has(ctl({"status"}), "\nno cards\n"));
    EXPECT_EQ(fs::status(TPG_CTL_PATH_TMP).permissions(), fs::perms(0600));
    fs::remove(TPG_CTL_PATH_TMP);
    write_file(TPG_CTL_PATH_TMP, "another's");
    proc_end(&w.tpg);
    EXPECT_TRUE(fs::remove(TPG_CTL_PATH_TMP));
    fs::remove_all(TPG_CTL_PATH);

    tpg_start(&w);
    EXPECT_EQ(fs::status(TPG_CTL_PATH).permissions(), fs::perms(0600));
    const std::string garbage = "{\"ok\":false,\"error\":\"not a request\"}\n";
    const std::string log = R"({"do":"log","level":6})", done = "{\"ok\":true}\n";
    using namespace std::string_literals;
    for (const std::string& bytes : {"12\n"s, "{\"do\":1}\n"s, "{\"do\":\"log\"} x\n"s,
                                     "{\"do\":'log'}\n"s, "\0\n"s, std::string(5000, 'x')}) {
        EXPECT_EQ(told(TPG_CTL_PATH, bytes, false), garbage) << bytes;
        EXPECT_EQ(told(TPG_CTL_PATH, log + "\n" + bytes + log + "\n"), done + garbage) << bytes;
    }
    EXPECT_EQ(told(TPG_CTL_PATH, log), ""); /* its line does not end */
    EXPECT_EQ(told(TPG_CTL_PATH, log + "\n" + log + "\n" + log + "\n"), done + done + done);
    for (const char* refused :
         {R"({"do":"halt"})", R"({"do":"log","level":"7"})", R"({"do":"log","level":-1})",
          R"({"do":"trace"})", R"({"do":"reload","slot":16})", R"({"do":"reload","slot":1e9})",
          R"({"do":"trace","list":",,,,,,,,,"})", R"({"do":"reload","slot":2})"}) {
        EXPECT_TRUE(told(TPG_CTL_PATH, std::string(refused) + "\n").starts_with(R"({"ok":false)"));
    }
    std::vector<int> idle(4);
    for (int& fd : idle) {
        fd = unix_socket(TPG_CTL_PATH);
    }
    EXPECT_EQ(ctl({"status"}), "1 tpgctl: too many connections\n");
    for (const int fd : idle) {
        close(fd);
    }
    EXPECT_TRUE(wait_for([] { return has(ctl({"status"}), "\nno cards\n"); }));
    const int deaf = unix_socket(TPG_CTL_PATH); /* it asks, and never reads */
    std::string many;
    for (int i = 0; i < 2000; i++) {
        many += "{\"do\":\"status\"}\n";
    }
    while (send(deaf, many.data(), many.size(), MSG_NOSIGNAL) > 0) {
    }
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << strerror(errno);
    EXPECT_TRUE(has(ctl({"status"}), "\nno cards\n"));
}
