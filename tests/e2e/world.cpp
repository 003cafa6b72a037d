#include "world.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <regex>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;

constexpr char RUN[] = "/tmp/run/";

static void wipe(const char* folder)
{
    const auto remove_one = [](const char* path, const struct stat*, int, FTW* state) {
        if (state->level > 0) {
            remove(path); /* fails for the places where kept folders are mounted */
        }
        return 0;
    };
    nftw(folder, remove_one, 16, FTW_DEPTH | FTW_MOUNT | FTW_PHYS);
}

void World::SetUp()
{
    static const std::string path = getenv("PATH");
    setenv("PATH", ("/tmp/bin:" + path + ":/usr/sbin:/sbin").c_str(), 1);
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", "/tmp/conf", 1);
    for (const char* folder : {"/tmp", "/mnt", "/var", "/run"}) {
        wipe(folder);
    }
    for (const char* folder : {RUN, "/tmp/conf", "/tmp/bin", CARDS, BUILT_IN, FLASH,
                               "/var/lib/snmp", "/var/run", "/var/tmp"}) {
        fs::create_directories(folder);
    }
    /* The agent looks for a lost master this often; its default would make tests slow. */
    write_file("/tmp/conf/card_agentx.conf", "agentXPingInterval 1\n");
}

void World::TearDown()
{
    if (w.chassis.pid > 0) {
        proc_end(&w.chassis);
    }
    if (w.tpg.pid > 0) {
        EXPECT_EQ(proc_end(&w.tpg), 0);
        EXPECT_FALSE(fs::exists(TPG_SVR_PATH));
    }
    for (proc_t* proc : {&w.snmpd, &w.snmptrapd}) {
        if (proc->pid > 0) {
            proc_end(proc, SIGKILL);
        }
    }
    if (HasFailure()) {
        for (const auto& file : fs::directory_iterator(RUN)) {
            const std::string text = read_file(file.path());
            printf("--- %s\n%s\n", file.path().c_str(),
                   text.substr(text.size() - std::min<size_t>(text.size(), 6000)).c_str());
        }
    }
}

/* --- programs --- */

proc_t proc_start(const std::string& name, const words_t& command, bool piped)
{
    proc_t proc = {.log = RUN + name + ".log", .output = RUN + name + ".out"};
    fs::remove(proc.log); /* of an earlier one */
    fs::remove(proc.output);
    int in[2] = {-1, -1};
    EXPECT_EQ(piped ? pipe2(in, O_CLOEXEC) : 0, 0) << strerror(errno);
    const std::vector<char*> argv = argv_of(command);
    proc.pid = fork();
    if (proc.pid == 0) { /* where nothing is allocated: another thread may hold the allocator */
        const int mode = O_WRONLY | O_CREAT | O_CLOEXEC | O_APPEND;
        dup2(piped ? in[0] : open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dup2(open(proc.output.c_str(), mode, 0644), STDOUT_FILENO);
        dup2(open(proc.log.c_str(), mode, 0644), STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    proc.in = in[1];
    return proc;
}

int proc_end(proc_t* proc, int signal_no)
{
    if (signal_no != 0) {
        kill(proc->pid, signal_no);
    }
    int status = 0;
    if (!wait_for([&] { return waitpid(proc->pid, &status, WNOHANG) != 0; }, 2 * SECONDS)) {
        ADD_FAILURE() << proc->log << ": did not end";
        kill(proc->pid, SIGKILL);
        waitpid(proc->pid, &status, 0);
    }
    close(std::exchange(proc->in, -1));
    proc->pid = -1;
    const std::string text = read_file(proc->log);
    for (const char* word : {"ERROR: AddressSanitizer", "runtime error", "LeakSanitizer"}) {
        EXPECT_FALSE(has(text, word)) << text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool running(const proc_t& proc)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(proc.pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

std::string run(const words_t& command)
{
    proc_t proc = proc_start("tool", command);
    proc_end(&proc, 0);
    return read_file(proc.output) + read_file(proc.log);
}

words_t knowing(const std::string& module)
{
    const std::string top = TPG_SOURCE_DIR;
    const std::string build = fs::path(TPG_BIN).parent_path();
    return {"env", "MIBS=" + module + ":SNMPv2-MIB",
            "MIBDIRS=" + std::string(MODULES) + ":" + top + "/doc/mibs:" + build +
                "/installed/mibs:" + top + "/scripts/demo/mibs"};
}

/* --- partners --- */

void snmpd_start(world_t* world)
{
    write_file("/tmp/conf/snmpd.conf",
               "rwcommunity rw\nrocommunity ro\nmaster agentx\nagentXSocket tcp:127.0.0.1:705\n"
               "agentXTimeout 12\nagentXRetries 0\ndontLogTCPWrappersConnects yes\n"
               "trap2sink 127.0.0.1:1162 public\n");
    world->snmpd = proc_start("snmpd", {"snmpd", "-f", "-Le", "-C", "-c", "/tmp/conf/snmpd.conf",
                                        "-p", "/tmp/run/snmpd.pid", SNMPD});
    EXPECT_TRUE(wait_for_text(world->snmpd.log, "NET-SNMP version"));
}

void snmptrapd_start(world_t* world)
{
    write_file("/tmp/conf/snmptrapd.conf", "disableAuthorization yes\n");
    world->snmptrapd =
        proc_start("snmptrapd", {"snmptrapd", "-f", "-Lf", "/tmp/run/traps", "-C", "-c",
                                 "/tmp/conf/snmptrapd.conf", "-p", "/tmp/run/snmptrapd.pid", "-One",
                                 "-F", "TRAP\t%v\n", "udp:127.0.0.1:1162"});
    EXPECT_TRUE(wait_for_text("/tmp/run/traps", "NET-SNMP version"));
}

words_t traps()
{
    static const std::regex head("TRAP\t.1.3.6.1.2.1.1.3.0 = Timeticks: [^\t]*\t"
                                 ".1.3.6.1.6.3.1.1.4.1.0 = OID: ");
    static const std::regex var("\t(\\S+) = ");
    words_t all;
    std::istringstream in(read_file("/tmp/run/traps"));
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("TRAP\t")) {
            all.push_back(std::regex_replace(std::regex_replace(line, head, ""), var, " $1="));
        }
    }
    return all;
}

void expect_traps(const words_t& expected)
{
    wait_for([&] { return traps().size() >= expected.size(); });
    EXPECT_EQ(traps(), expected);
}

void tpg_start(world_t* world, const words_t& options, const std::string& board, bool up)
{
    const words_t environment = words_t{"env"} + (board.empty() ? words_t{"-u", "BASE_BOARD"}
                                                                : words_t{"BASE_BOARD=" + board});
    world->tpg = proc_start("tpg", environment + runner() + words_t{TPG_BIN} + options);
    if (up) {
        close(client_connect());
        EXPECT_TRUE(log_has(*world, "Accepted Connection FD")); /* by now signals are taken, too */
    }
}

void agents_start(world_t* world, const words_t& options)
{
    snmpd_start(world);
    tpg_start(world, options);
}

void chassis_start(world_t* world, const std::string& cards, const std::string& more)
{
    write_file("/tmp/cards/scenario.json", "{" + more + "\"cards\": [" + cards + "]}");
    world->chassis = proc_start(
        "chassis", runner() + words_t{TPG_CHASSIS_BIN, "/tmp/cards/scenario.json"}, true);
    EXPECT_TRUE(wait_for_text(world->chassis.output, "ready"));
}

std::string chassis(world_t* world, const std::string& command)
{
    const std::string line = command + "\n";
    const size_t before = read_file(world->chassis.output).size();
    EXPECT_EQ(write(world->chassis.in, line.data(), line.size()), ssize_t(line.size()));
    std::smatch part; /* lines, and the last one */
    std::string text;
    EXPECT_TRUE(wait_for([&] {
        static const std::regex ANSWER("((?:.*\n)*)((ok|error).*)\n");
        text = read_file(world->chassis.output).substr(before);
        return std::regex_match(text, part, ANSWER);
    })) << command;
    return part[3] == "ok" ? part.str(1) + part.str(2) : part.str(2);
}

bool wait_for(const std::function<bool()>& condition, int seconds)
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (clock::now() > deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool wait_for_text(const std::string& path, std::string_view text)
{
    return wait_for([&] { return has(read_file(path), text); });
}

int log_count(const world_t& world, std::string_view text)
{
    const std::string log = read_file(world.tpg.log);
    int count = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) {
        count++;
    }
    return count;
}

bool log_has(const world_t& world, std::string_view text, int count)
{
    return wait_for([&] { return log_count(world, text) >= count; });
}

/* --- the command line tools --- */

proc_t snmp_start(const std::string& tool, const words_t& args)
{
    static int number = 0;
    return proc_start("tool" + std::to_string(++number),
                      words_t{tool, "-v2c", "-c", "rw", "-One", "-t", "15", "-r", "0"} + args);
}

snmp_t snmp_end(proc_t* tool)
{
    static const std::regex VAR("(\\S+) = (?:([\\w-]+): )?(.*)");
    static const std::regex ERROR("Reason: \\(?(\\w+)|(Timeout)");
    proc_end(tool, 0);
    const std::string text = read_file(tool->output) + read_file(tool->log);
    fs::remove(tool->output);
    fs::remove(tool->log);
    snmp_t result;
    std::smatch part;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (std::regex_match(line, part, VAR)) {
            result.vars.push_back({part[1], part[2], part[3]});
        }
    }
    if (std::regex_search(text, part, ERROR)) {
        result.error = part.str(1) + part.str(2);
    }
    return result;
}

snmp_t snmp(const std::string& tool, const words_t& args)
{
    proc_t proc = snmp_start(tool, args);
    return snmp_end(&proc);
}

std::string said(const snmp_t& answer)
{
    std::string text;
    for (const auto& [oid, type, value] : answer.vars) {
        text.append(text.empty() ? "" : ", ").append(type).append(type.empty() ? "" : ": ");
        text += value;
    }
    return answer.error.empty() ? text : answer.error;
}

std::string get(const std::string& oid)
{
    return said(snmp("snmpget", {SNMPD, oid}));
}

std::string gets(const std::string& base, const std::string& ends)
{
    std::string text;
    for (const std::string& end : words_of(ends)) {
        text += (text.empty() ? "" : ", ") + get(base + end);
    }
    return text;
}

std::string set(const std::string& oid, const std::string& type, const std::string& value)
{
    return snmp("snmpset", {SNMPD, oid, type, value}).error;
}

std::string cells(const std::string& oid)
{
    std::string text;
    /* The master agent loses requests that meet the registration of their tables: try again soon.
     */
    for (const var_t& var : snmp("snmpwalk", {"-t", "2", SNMPD, oid}).vars) {
        if (var.oid.starts_with("." + oid + ".")) {
            text += (text.empty() ? "" : " ") + var.oid.substr(oid.size() + 2) + "=" + var.value;
        }
    }
    return text;
}

void expect_cells(const std::string& oid, const std::string& expected)
{
    wait_for([&] { return cells(oid) == expected; });
    EXPECT_EQ(cells(oid), expected);
}

std::vector<proc_t> managers_start(const words_t& requests)
{
    std::vector<proc_t> managers;
    for (const std::string& request : requests) {
        const size_t space = request.find(' ');
        managers.push_back(
            proc_start("manager" + std::to_string(managers.size()),
                       {"sh", "-c",
                        "while :; do " + request.substr(0, space) + " -v2c -c ro -t 1 -r 0 " +
                            SNMPD + request.substr(space) + " >/dev/null 2>&1; done"}));
    }
    return managers;
}

void managers_end(std::vector<proc_t>* managers)
{
    for (proc_t& manager : *managers) {
        proc_end(&manager, SIGKILL);
    }
}

/* --- files --- */

std::string document(const std::string& name)
{
    return read_file(TPG_SOURCE_DIR "/tests/cards/" + name + ".json");
}

std::string card_library(const std::string& name, const std::string& symbol,
                         const std::string& text)
{
    const std::string path = std::string(CARDS) + "/libmib_" + name + ".so";
    const std::string place = "jsonmib_" + symbol;
    write_file("/tmp/run/document", text);
    write_file("/tmp/run/card.s",
               ".data\n.long 1\n" +
                   (symbol.empty() ? ""
                                   : place + ": .incbin \"/tmp/run/document\"\n.type " + place +
                                         ",%object\n.size " + place + ", . - " + place + "\n"));
    EXPECT_EQ(run({"gcc", "-shared", "-nostdlib", "-o", path, "/tmp/run/card.s"}), "");
    return path;
}

std::string numbered_document(const std::string& base, int number, int last)
{
    const std::string index =
        last == 0 ? "" : R"({"range0": 1, "range1": )" + std::to_string(last) + "}";
    return R"({"gen_table_array": [{"name": "numbered", "oid": [)" +
           std::regex_replace(base, std::regex("\\."), ",") + "," + std::to_string(number) +
           R"(], "index_array": [)" + index + R"(], "param_array": [{"table_index": true}]}]})";
}

void card_files(const std::string& product, const std::string& text)
{
    write_file(std::string(CARDS) + "/" + product + ".json", text);
    card_library(product, product, text);
}

std::string played_card(int slot, const std::string& product, const std::string& family,
                        const std::string& more)
{
    return R"({"slot": )" + std::to_string(slot) + R"(, "product": ")" + product +
           R"(", "family": ")" + family + R"(", "version": "1.2.566", "library": ")" + CARDS +
           "/libmib_" + product + R"(.so", "jsonmib": ")" + product + ".json\"" + more + "}";
}

std::string flash_folder(const std::string& family, int slot)
{
    const std::string number = std::to_string(100 + slot).substr(1);
    const std::string folder = std::string(FLASH) + "/" + family + "_slot" + number;
    fs::create_directories(folder);
    return folder + "/sendtrap.json";
}

/* --- a client without the simulator --- */

int client_connect()
{
    int fd = -1;
    EXPECT_TRUE(wait_for([&] { return (fd = unix_socket(TPG_SVR_PATH)) >= 0; })) << strerror(errno);
    return fd;
}

void client_send(int fd, const std::string& bytes)
{
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()))
        << strerror(errno);
}

bool client_update_acked(int fd, const tpg_msg_libmib_update_t& msg)
{
    client_send(fd, bytes_of(msg));
    pollfd readable = {fd, POLLIN, 0};
    com_msg_head_t ack = {};
    return poll(&readable, 1, SECONDS * 1000) == 1 && read(fd, &ack, sizeof(ack)) == sizeof(ack) &&
           ack.usMsgType == TPG_MSG_LIBMIB_REGISTER && ack.usMsgLen == sizeof(ack) &&
           ack.usFlags == 1 && ack.usReserved == 0 && ack.ulPid != 0;
}
