#include "world.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <ftw.h>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

static words_t runner();
static words_t operator+(words_t a, const words_t& b);
static void wipe(const char* folder);
static std::string joined(const words_t& parts);
static std::string range_json(int lo, int hi);
[[noreturn]] static void child(const words_t& command, const words_t& more);
static var_t parse_var(const std::string& line);
static std::string error_name(const std::string& text);

constexpr char RUN[] = "/tmp/run/";

void world_enter(char** argv)
{
    char self[PATH_MAX];
    if (realpath(argv[0], self) == nullptr) {
        perror(argv[0]);
        _exit(EXIT_FAILURE);
    }
    const char* const keep = getenv("WORLD_KEEP");
    const std::string binaries = fs::path(TPG_BIN).parent_path();
    setenv("WORLD_KEEP", (binaries + (keep != nullptr ? std::string(":") + keep : "")).c_str(), 1);
    setenv("TPG_WORLD", "1", 1);
    words_t command = words_t{TPG_SOURCE_DIR "/scripts/world.sh"} + runner() + words_t{self};
    while (*++argv != nullptr) {
        command.emplace_back(*argv);
    }
    child(command, {});
}

void world_begin()
{
    const std::string path = getenv("PATH");
    setenv("PATH", ("/tmp/bin:" + path + ":/usr/sbin:/sbin").c_str(), 1);
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", "/tmp/conf", 1);
    unsetenv("BASE_BOARD");
    signal(SIGPIPE, SIG_IGN);
    for (const char* folder : {"/tmp", "/mnt", "/var"}) {
        wipe(folder);
    }
    for (const char* folder : {RUN, "/tmp/conf", "/tmp/bin", CARDS, BUILT_IN, FLASH,
                               "/var/lib/snmp", "/var/run", "/var/tmp"}) {
        fs::create_directories(folder);
    }
    /* The agent looks for a lost master this often; its default would make tests slow. */
    write_file("/tmp/conf/card_agentx.conf", "agentXPingInterval 1\n");
}

void world_end(world_t* world)
{
    if (world->chassis.pid > 0) {
        proc_end(&world->chassis);
    }
    if (world->tpg.pid > 0) {
        EXPECT_EQ(proc_end(&world->tpg), 0);
        EXPECT_FALSE(fs::exists(TPG_SVR_PATH));
    }
    for (proc_t* proc : {&world->snmpd, &world->snmptrapd}) {
        if (proc->pid > 0) {
            proc_end(proc, SIGKILL);
        }
    }
    if (testing::Test::HasFailure()) {
        for (const auto& file : fs::directory_iterator(RUN)) {
            if (file.path().extension() != ".log") {
                continue;
            }
            const std::string text = read_file(file.path());
            printf("--- %s\n%s\n", file.path().c_str(),
                   text.substr(text.size() - std::min<size_t>(text.size(), 6000)).c_str());
        }
    }
    world_begin();
}

/* --- programs --- */

proc_t proc_start(const std::string& name, const words_t& command, const words_t& more, bool piped)
{
    proc_t proc = {.log = RUN + name + ".log", .output = RUN + name + ".out"};
    fs::remove(proc.log); /* of an earlier one */
    fs::remove(proc.output);
    int in[2] = {-1, -1};
    EXPECT_EQ(piped ? pipe2(in, O_CLOEXEC) : 0, 0) << strerror(errno);
    proc.pid = fork();
    if (proc.pid == 0) {
        const int mode = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_APPEND;
        dup2(piped ? in[0] : open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dup2(open(proc.output.c_str(), mode, 0644), STDOUT_FILENO);
        dup2(open(proc.log.c_str(), mode, 0644), STDERR_FILENO);
        child(command, more);
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
        EXPECT_EQ(text.find(word), std::string::npos) << text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string run(const words_t& command)
{
    proc_t proc = proc_start("tool", command);
    proc_end(&proc, 0);
    return read_file(proc.output) + read_file(proc.log);
}

static words_t runner()
{
    const char* const text = getenv("TPG_RUNNER");
    std::istringstream in(text != nullptr ? text : "");
    words_t words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

static words_t operator+(words_t a, const words_t& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

static void child(const words_t& command, const words_t& more)
{
    for (const std::string& setting : more) {
        const size_t at = setting.find('=');
        setenv(setting.substr(0, at).c_str(), setting.substr(at + 1).c_str(), 1);
    }
    signal(SIGPIPE, SIG_DFL);
    const rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
    std::vector<char*> argv;
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

/* --- partners --- */

void snmpd_start(world_t* world, const std::string& more)
{
    write_file(
        "/tmp/conf/snmpd.conf",
        "rwcommunity rw\nrocommunity ro\nmaster agentx\n"
        "agentXSocket tcp:127.0.0.1:705\nagentXTimeout 12\n"
        "dontLogTCPWrappersConnects yes\nagentXRetries 0\ntrap2sink 127.0.0.1:1162 public\n" +
            more);
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
    const std::string time = ".1.3.6.1.2.1.1.3.0 = Timeticks: ";
    const std::string trap_oid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: ";
    words_t all;
    std::istringstream in(read_file("/tmp/run/traps"));
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with("TRAP\t")) {
            continue;
        }
        std::istringstream vars(line.substr(5));
        std::string text;
        std::getline(vars, text, '\t');
        EXPECT_TRUE(text.starts_with(time)) << line;
        std::getline(vars, text, '\t');
        EXPECT_TRUE(text.starts_with(trap_oid)) << line;
        text.erase(0, trap_oid.size());
        for (std::string var; std::getline(vars, var, '\t');) {
            const size_t equals = var.find(" = ");
            text += " " + var.replace(equals, 3, "=");
        }
        all.push_back(text);
    }
    return all;
}

void expect_traps(const words_t& expected)
{
    wait_for([&] { return traps().size() >= expected.size(); });
    EXPECT_EQ(joined(traps()), joined(expected));
}

void tpg_start(world_t* world, const words_t& options, const std::string& board, bool up)
{
    world->tpg = proc_start("tpg", runner() + words_t{TPG_BIN} + options,
                            board.empty() ? words_t{} : words_t{"BASE_BOARD=" + board});
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
        "chassis", runner() + words_t{TPG_CHASSIS_BIN, "/tmp/cards/scenario.json"}, {}, true);
    EXPECT_TRUE(wait_for_text(world->chassis.output, "ready"));
}

std::string chassis(world_t* world, const std::string& command)
{
    const std::string line = command + "\n";
    const size_t before = read_file(world->chassis.output).size();
    EXPECT_EQ(write(world->chassis.in, line.data(), line.size()), ssize_t(line.size()));
    std::string text;
    size_t last = 0; /* where the last whole line begins */
    EXPECT_TRUE(wait_for([&] {
        text = read_file(world->chassis.output).substr(before);
        last = text.rfind('\n', text.size() - 2) + 1;
        return text.ends_with('\n') &&
               (text.compare(last, 2, "ok") == 0 || text.compare(last, 5, "error") == 0);
    })) << command;
    text.resize(text.size() - 1);
    return text.substr(last).starts_with("ok") ? text : text.substr(last);
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
    return wait_for([&] { return read_file(path).find(text) != std::string::npos; });
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

snmp_t snmp(const std::string& tool, const words_t& args)
{
    const std::string text =
        run(words_t{tool, "-v2c", "-c", "rw", "-One", "-t", "15", "-r", "0"} + args);
    snmp_t result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.find(" = ") != std::string::npos) {
            result.vars.push_back(parse_var(line));
        }
    }
    result.error = error_name(text);
    return result;
}

std::string get(const std::string& oid)
{
    const snmp_t result = snmp("snmpget", {SNMPD, oid});
    if (!result.error.empty() || result.vars.size() != 1) {
        return result.error;
    }
    const var_t& var = result.vars[0];
    return var.type.empty() ? var.value : var.type + ": " + var.value;
}

std::string set(const std::string& oid, const std::string& type, const std::string& value)
{
    return snmp("snmpset", {SNMPD, oid, type, value}).error;
}

std::vector<var_t> walk(const std::string& oid)
{
    /* The master agent loses requests that meet the registration of their tables: try again soon.
     */
    return snmp("snmpwalk", {"-t", "2", SNMPD, oid}).vars;
}

std::string cells(const std::string& oid)
{
    std::string text;
    for (const var_t& var : walk(oid)) {
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

/* "OID = TYPE: VALUE", "OID = "TEXT"" or "OID = exception". */
static var_t parse_var(const std::string& line)
{
    const size_t equals = line.find(" = ");
    const std::string value = line.substr(equals + 3);
    const size_t colon = value.find(": ");
    if (value == "\"\"") {
        return {line.substr(0, equals), "STRING", value};
    }
    if (colon == std::string::npos || value.starts_with("No ")) {
        return {line.substr(0, equals), "", value};
    }
    return {line.substr(0, equals), value.substr(0, colon), value.substr(colon + 2)};
}

/* The word after "Reason:", or "Timeout". */
static std::string error_name(const std::string& text)
{
    if (text.find("Timeout") != std::string::npos) {
        return "Timeout";
    }
    size_t at = text.find("Reason: ");
    if (at == std::string::npos) {
        return "";
    }
    at = text.find_first_not_of('(', at + 8);
    return text.substr(at, text.find_first_of(") \n", at) - at);
}

/* --- files --- */

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

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string& path, std::string_view text, int mode)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text << std::flush;
    EXPECT_TRUE(out.good()) << path;
    chmod(path.c_str(), static_cast<mode_t>(mode));
}

static std::string joined(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : ",\n") + part;
    }
    return text;
}

static std::string range_json(int lo, int hi)
{
    return R"("range0": )" + std::to_string(lo) + R"(, "range1": )" + std::to_string(hi);
}

std::string table_json(const table_t& table)
{
    std::string oid = table.oid;
    std::replace(oid.begin(), oid.end(), '.', ',');
    words_t indexes, columns;
    for (const auto& [lo, hi] : table.indexes) {
        indexes.push_back("{" + range_json(lo, hi) + "}");
    }
    for (const column_t& column : table.columns) {
        const std::string var = std::to_string(column.var);
        columns.push_back(R"({"name": "v)" + var + R"(", "var_id": )" + var + R"(, "type": )" +
                          std::to_string(column.type) + ", " + range_json(column.lo, column.hi) +
                          (column.more.empty() ? "" : ", ") + column.more + "}");
    }
    return R"({"name": ")" + table.name + R"(", "oid": [)" + oid + R"(], "index_array": [)" +
           joined(indexes) + R"(], "param_array": [)" + joined(columns) + "]" +
           (table.more.empty() ? "" : ", ") + table.more + "}";
}

std::string document(const std::vector<table_t>& gen, const std::vector<table_t>& fault,
                     const std::string& more)
{
    words_t gen_texts, fault_texts;
    std::transform(gen.begin(), gen.end(), std::back_inserter(gen_texts), table_json);
    std::transform(fault.begin(), fault.end(), std::back_inserter(fault_texts), table_json);
    return "{" + more + "\"gen_table_array\": [" + joined(gen_texts) +
           "],\n\"fault_table_array\": [" + joined(fault_texts) + "]}";
}

std::string card_library(const std::string& name, const std::string& symbol,
                         const std::string& text)
{
    const std::string path = std::string(CARDS) + "/libmib_" + name + ".so";
    std::string source = "int card_data = 1;\n";
    if (!symbol.empty()) {
        source += "static char jsonmib_" + symbol + "[] __attribute__((used)) = {";
        for (const char c : text) {
            source += std::to_string(static_cast<int>(c)) + ",";
        }
        source += "};\n";
    }
    write_file("/tmp/run/card.c", source);
    const std::string said = run({"gcc", "-shared", "-nostdlib", "-o", path, "/tmp/run/card.c"});
    EXPECT_EQ(said, "");
    return path;
}

std::string numbered_document(const std::string& base, int number)
{
    return document({{"numbered",
                      base + "." + std::to_string(number),
                      {},
                      {{1, 1, 1, 15, R"("table_index": true)"}},
                      ""}});
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
    const std::string number = std::to_string(slot);
    const std::string folder =
        std::string(FLASH) + "/" + family + "_slot" + (number.size() < 2 ? "0" : "") + number;
    fs::create_directories(folder);
    return folder + "/sendtrap.json";
}

/* --- a client without the simulator --- */

int client_connect()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, TPG_SVR_PATH, sizeof(TPG_SVR_PATH));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(wait_for([&] {
        return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    })) << strerror(errno);
    return fd;
}

com_msg_head_t client_head(uint16_t type, size_t length)
{
    com_msg_head_t head = {};
    head.usMsgType = type;
    head.usMsgLen = static_cast<uint16_t>(length);
    head.ulPid = 1234;
    head.usReserved = com_msg_parity(&head, TPG_PARITY_KEY);
    return head;
}

tpg_msg_libmib_update_t client_update(tpg_msg_type type, int slot, const std::string& product,
                                      const std::string& family, int minor,
                                      const std::string& library)
{
    tpg_msg_libmib_update_t msg = {};
    msg.head = client_head(type, sizeof(msg));
    tpg_libmib_update_t& update = msg.libmib_update;
    product.copy(update.prod_string, sizeof(update.prod_string));
    family.copy(update.prod_family, sizeof(update.prod_family));
    library.copy(update.libmib_path, sizeof(update.libmib_path));
    update.major_rev = 1;
    update.minor_rev = static_cast<uint8_t>(minor);
    update.slot_no = static_cast<uint8_t>(slot);
    return msg;
}

std::string notify(int slot, uint32_t var, uint32_t index, const std::string& data, size_t cut)
{
    const size_t length = TPG_TRAP_HEAD_LEN + data.size() - cut;
    tpg_msg_trap_notify_t msg = {};
    msg.head = client_head(TPG_MSG_TRAP_NOTIFY, length);
    msg.trap_notify.var_id = var;
    msg.trap_notify.index = index;
    msg.trap_notify.slot_no = static_cast<uint8_t>(slot);
    msg.trap_notify.data_len = static_cast<uint16_t>(data.size());
    data.copy(reinterpret_cast<char*>(msg.trap_notify.data), TPG_TRAP_DATA_MAX);
    return {reinterpret_cast<const char*>(&msg), length};
}

std::string big_endian(uint32_t number)
{
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes += static_cast<char>(number >> shift & 0xffU);
    }
    return bytes;
}

void client_send(int fd, const void* data, size_t length)
{
    EXPECT_EQ(write(fd, data, length), static_cast<ssize_t>(length)) << strerror(errno);
}

void client_send(int fd, const std::string& bytes)
{
    client_send(fd, bytes.data(), bytes.size());
}

bool client_update_acked(int fd, const tpg_msg_libmib_update_t& msg)
{
    client_send(fd, &msg, sizeof(msg));
    pollfd readable = {fd, POLLIN, 0};
    com_msg_head_t ack = {};
    return poll(&readable, 1, SECONDS * 1000) == 1 && read(fd, &ack, sizeof(ack)) == sizeof(ack) &&
           ack.usMsgType == TPG_MSG_LIBMIB_REGISTER && ack.usMsgLen == sizeof(ack) &&
           ack.usFlags == 1 && ack.usReserved == 0 && ack.ulPid != 0;
}
