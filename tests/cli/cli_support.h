/*
** cli_support.h -- what the tarnwick-cli tests share: running the built program in a temporary
** directory with its output captured and a home directory of its own, writing fixture files, and
** a strict JSON parser that rejects everything the grammar does not allow (raw control characters
** and ill-formed UTF-8 in strings included), so a test that parses the program's output also
** checks that it is valid.
*/
#ifndef TRN_CLI_SUPPORT_H
#define TRN_CLI_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cli_test
{

namespace fs = std::filesystem;

// A fresh directory under /tmp, removed with everything in it at the end of the test. Its path
// is resolved (no symbolic links), as the program resolves the directories it is given.
class TempDir
{
public:
    TempDir()
    {
        char tmpl[] = "/tmp/trn_cli_XXXXXX";
        const char *made = mkdtemp(tmpl);
        EXPECT_NE(made, nullptr);
        m_path = fs::canonical(made ? made : "/tmp").string();
    }
    ~TempDir()
    {
        std::error_code ec;
        fs::remove_all(m_path, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return m_path; }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

inline void write_file(const std::string &path, const std::string &bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary);
    out << bytes;
    ASSERT_TRUE(out.good()) << path;
}

inline std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct RunResult {
    int status = -1; // exit status, or -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// The home directory of every run that names none: one per test program, so the program never
// reads or writes the user's settings, training profiles or weights.
inline const std::string &default_home()
{
    static TempDir home;
    return home.path();
}

// The settings file the program reads with HOME and XDG_CONFIG_HOME inside home: the
// application's QSettings ("Tarnwick", "Tarnwick") in the native (INI) format.
inline std::string settings_file(const std::string &home)
{
    return home + "/.config/Tarnwick/Tarnwick.conf";
}

// A started tarnwick-cli whose output goes to files; finish() waits for it.
class CliProcess
{
public:
    // Runs tarnwick-cli with args in the working directory cwd, without a shell, with HOME and
    // XDG_CONFIG_HOME inside home (default_home() when empty). Standard output and standard
    // error go to files (so neither can fill a pipe); with err_on_terminal standard error is a
    // pseudo-terminal instead, drained by finish().
    CliProcess(const std::vector<std::string> &args, const std::string &cwd,
               bool err_on_terminal = false, const std::string &home = "")
    {
        char out_tmpl[] = "/tmp/trn_cli_out_XXXXXX";
        char err_tmpl[] = "/tmp/trn_cli_err_XXXXXX";
        int out_fd = mkstemp(out_tmpl);
        int err_fd = mkstemp(err_tmpl);
        m_out_path = out_tmpl;
        m_err_path = err_tmpl;
        int slave = -1;
        if (err_on_terminal && openpty(&m_master, &slave, nullptr, nullptr, nullptr) != 0) {
            ADD_FAILURE() << "openpty failed";
            m_master = -1;
        }
        std::vector<std::string> argv_text = {std::string(TRN_BIN_DIR) + "/tarnwick-cli"};
        argv_text.insert(argv_text.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &a : argv_text) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        const std::string home_dir = home.empty() ? default_home() : home;
        const std::string config_dir = home_dir + "/.config";

        m_pid = fork();
        if (m_pid == 0) {
            if (chdir(cwd.c_str()) != 0) {
                _exit(127);
            }
            setenv("HOME", home_dir.c_str(), 1);
            setenv("XDG_CONFIG_HOME", config_dir.c_str(), 1);
            int null_fd = open("/dev/null", O_RDONLY);
            dup2(null_fd, 0);
            dup2(out_fd, 1);
            dup2(slave >= 0 ? slave : err_fd, 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        if (slave >= 0) {
            close(slave);
        }
        close(out_fd);
        close(err_fd);
    }
    ~CliProcess()
    {
        if (!m_finished) {
            kill(m_pid, SIGKILL);
            finish();
        }
    }
    CliProcess(const CliProcess &) = delete;
    CliProcess &operator=(const CliProcess &) = delete;

    pid_t pid() const { return m_pid; }
    // What the program has written to standard output so far.
    std::string out_so_far() const { return read_file(m_out_path); }

    RunResult finish()
    {
        RunResult r;
        // Drain the terminal while the program runs: a full pseudo-terminal would block it.
        std::string terminal;
        if (m_master >= 0) {
            char buf[4096];
            ssize_t n;
            while ((n = read(m_master, buf, sizeof buf)) > 0) { // EIO once the child has gone
                terminal.append(buf, static_cast<size_t>(n));
            }
            close(m_master);
            m_master = -1;
        }
        int wstatus = 0;
        waitpid(m_pid, &wstatus, 0);
        m_finished = true;
        r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
        r.out = read_file(m_out_path);
        r.err = terminal.empty() ? read_file(m_err_path) : terminal;
        unlink(m_out_path.c_str());
        unlink(m_err_path.c_str());
        return r;
    }

private:
    pid_t m_pid = -1;
    int m_master = -1;
    bool m_finished = false;
    std::string m_out_path;
    std::string m_err_path;
};

// Runs tarnwick-cli to its end (see CliProcess).
inline RunResult run_cli(const std::vector<std::string> &args, const std::string &cwd,
                         bool err_on_terminal = false, const std::string &home = "")
{
    return CliProcess(args, cwd, err_on_terminal, home).finish();
}

inline std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::string line;
    std::istringstream in(text);
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// Every line on standard error carries the prefix: the program's own and the engine's.
inline void expect_diagnostics(const RunResult &r)
{
    std::vector<std::string> lines = lines_of(r.err);
    ASSERT_FALSE(lines.empty()) << "nothing on standard error";
    for (const std::string &line : lines) {
        EXPECT_EQ(line.rfind("tarnwick: ", 0), 0u) << "line without prefix: " << line;
    }
}

// --- JSON ---------------------------------------------------------------------------------------

struct Json {
    enum Kind { Null, Bool, Number, String, Array, Object };
    Kind kind = Null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    const Json &operator[](const std::string &key) const
    {
        for (const auto &m : members) {
            if (m.first == key) {
                return m.second;
            }
        }
        ADD_FAILURE() << "no member " << key;
        static const Json none;
        return none;
    }
    std::vector<std::string> keys() const
    {
        std::vector<std::string> names;
        for (const auto &m : members) {
            names.push_back(m.first);
        }
        return names;
    }
};

// Recursive descent over the JSON grammar. Strings are checked byte by byte: no raw control
// character, every escape known, every multi-byte character well-formed UTF-8 (no overlong
// form, surrogate or value above U+10FFFF). The program never writes surrogate escapes, so
// they are refused too.
class JsonParser
{
public:
    explicit JsonParser(const std::string &s) : m_s(s) {}

    bool parse(Json *out, std::string *error)
    {
        bool ok = value(out, 0) && (skip_space(), m_i == m_s.size() || fail("trailing bytes"));
        *error = m_error + " at byte " + std::to_string(m_i);
        return ok;
    }

private:
    bool fail(const char *why)
    {
        m_error = m_error.empty() ? why : m_error;
        return false;
    }
    char peek() const { return m_i < m_s.size() ? m_s[m_i] : '\0'; }
    bool eat(char c) { return peek() == c ? (m_i++, true) : false; }
    void skip_space()
    {
        while (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r') {
            m_i++;
        }
    }
    bool utf8_char(std::string &out)
    {
        unsigned char c = static_cast<unsigned char>(m_s[m_i]);
        size_t extra = c >= 0xF8 ? 9 : c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 9;
        if (extra == 9 || m_i + extra >= m_s.size()) {
            return fail("bad or truncated UTF-8");
        }
        unsigned cp = c & (0x3F >> extra);
        for (size_t j = 1; j <= extra; j++) {
            unsigned char b = static_cast<unsigned char>(m_s[m_i + j]);
            if ((b & 0xC0) != 0x80) {
                return fail("bad UTF-8 continuation");
            }
            cp = (cp << 6) | (b & 0x3F);
        }
        static const unsigned MIN[] = {0, 0x80, 0x800, 0x10000};
        if (cp < MIN[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return fail("ill-formed UTF-8");
        }
        out.append(m_s, m_i, extra + 1);
        m_i += extra + 1;
        return true;
    }
    bool string(std::string &out)
    {
        static const std::string FROM = "\"\\/bfnrt";
        static const std::string TO = "\"\\/\b\f\n\r\t";
        m_i++; // the opening quote
        while (!eat('"')) {
            unsigned char c = static_cast<unsigned char>(peek());
            if (m_i >= m_s.size() || c < 0x20) {
                return fail("unterminated string or raw control character");
            }
            if (c >= 0x80) {
                if (!utf8_char(out)) {
                    return false;
                }
            } else if (!eat('\\')) {
                out += m_s[m_i++];
            } else if (eat('u')) {
                unsigned long cp = m_i + 4 <= m_s.size()
                                       ? std::strtoul(m_s.substr(m_i, 4).c_str(), nullptr, 16)
                                       : 0xD800;
                if (m_s.substr(m_i, 4).find_first_not_of("0123456789abcdefABCDEF")
                        != std::string::npos
                    || (cp >= 0xD800 && cp <= 0xDFFF)) {
                    return fail("bad \\u escape");
                }
                m_i += 4;
                if (cp < 0x80) {
                    out += static_cast<char>(cp);
                } else if (cp < 0x800) {
                    out += static_cast<char>(0xC0 | (cp >> 6));
                    out += static_cast<char>(0x80 | (cp & 0x3F));
                } else {
                    out += static_cast<char>(0xE0 | (cp >> 12));
                    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
                    out += static_cast<char>(0x80 | (cp & 0x3F));
                }
            } else {
                size_t at = FROM.find(peek());
                if (at == std::string::npos || m_i >= m_s.size()) {
                    return fail("bad escape");
                }
                out += TO[at];
                m_i++;
            }
        }
        return true;
    }
    bool number(double *out)
    {
        static const std::regex NUMBER(R"(-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?)");
        size_t end = m_s.find_first_not_of("+-.0123456789eE", m_i);
        std::string text = m_s.substr(m_i, end == std::string::npos ? end : end - m_i);
        if (text.empty() || !std::regex_match(text, NUMBER)) {
            return fail("bad number or value");
        }
        m_i += text.size();
        *out = std::strtod(text.c_str(), nullptr);
        return true;
    }
    // The elements of an array or the members of an object, up to the closing bracket.
    bool elements(Json *out, char close, int depth)
    {
        skip_space();
        if (eat(close)) {
            return true;
        }
        do {
            Json item;
            if (close == '}') {
                skip_space();
                std::pair<std::string, Json> member;
                if (peek() != '"' || !string(member.first) || (skip_space(), !eat(':'))) {
                    return fail("bad key");
                }
                if (!value(&member.second, depth + 1)) {
                    return false;
                }
                out->members.push_back(std::move(member));
            } else {
                if (!value(&item, depth + 1)) {
                    return false;
                }
                out->items.push_back(std::move(item));
            }
            skip_space();
        } while (eat(','));
        return eat(close) || fail("expected ',' or a closing bracket");
    }
    bool value(Json *out, int depth)
    {
        skip_space();
        if (depth > 64) {
            return fail("too deep");
        }
        if (eat('{')) {
            out->kind = Json::Object;
            return elements(out, '}', depth);
        }
        if (eat('[')) {
            out->kind = Json::Array;
            return elements(out, ']', depth);
        }
        if (peek() == '"') {
            out->kind = Json::String;
            return string(out->text);
        }
        for (const char *word : {"true", "false", "null"}) {
            if (m_s.compare(m_i, std::strlen(word), word) == 0) {
                m_i += std::strlen(word);
                out->kind = word[0] == 'n' ? Json::Null : Json::Bool;
                out->boolean = word[0] == 't';
                return true;
            }
        }
        out->kind = Json::Number;
        return number(&out->number);
    }

    const std::string &m_s;
    size_t m_i = 0;
    std::string m_error;
};

// Parses the whole of text as one JSON value; a failure is reported with the text.
inline Json parse_json(const std::string &text)
{
    Json v;
    std::string error;
    EXPECT_TRUE(JsonParser(text).parse(&v, &error)) << error << " in: " << text;
    return v;
}

} // namespace cli_test

#endif
