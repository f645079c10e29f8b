#include "PfParser.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <map>
#include <set>

namespace orven::macsim {

namespace {

// ---------------------------------------------------------------- lexer ---

enum class Tok { Word, Quoted, Number, Sym, Newline, End };

struct Token {
    Tok type = Tok::End;
    std::string text;
    int line = 0;
};

// Words the grammar treats as keywords: they never stand for a name.
const std::set<std::string, std::less<>>& keywords() {
    static const std::set<std::string, std::less<>> words{
        "all", "allow-opts", "altq", "anchor", "antispoof", "any", "binat", "binat-anchor", "bitmask", "block",
        "block-policy", "code", "crop", "debug", "drop", "drop-ovl", "dummynet", "dummynet-anchor", "dup-to",
        "fastroute", "file", "fingerprints", "flags", "floating", "for", "fragment", "from", "global", "group",
        "hostid", "icmp-type", "icmp6-type", "if-bound", "in", "include", "inet", "inet6", "keep", "label", "limit",
        "load", "log", "loginterface", "max-mss", "min-ttl", "modulate", "nat", "nat-anchor", "no", "no-df",
        "no-route", "on", "optimization", "os", "out", "pass", "port", "probability", "proto", "queue", "quick",
        "random", "random-id", "rdr", "rdr-anchor", "reassemble", "reply-to", "require-order", "return",
        "return-icmp", "return-icmp6", "return-rst", "round-robin", "route-to", "rtable", "ruleset-optimization",
        "scrub", "scrub-anchor", "set", "skip", "source-hash", "state", "state-policy", "static-port",
        "sticky-address", "synproxy", "table", "tag", "tagged", "timeout", "to", "tos", "urpf-failed", "user"};
    return words;
}

bool allowedInString(int c) {
    if (std::isalnum(c))
        return true;
    if (!std::ispunct(c))
        return false;
    return c != '(' && c != ')' && c != '{' && c != '}' && c != '<' && c != '>' && c != '!' && c != '=' &&
           c != '/' && c != '#' && c != ',' && c != '"' && c != '\'';
}

bool allowedToEndNumber(int c) {
    return c == EOF || std::isspace(c) || c == ')' || c == ',' || c == '/' || c == '}' || c == '=';
}

class Lexer {
public:
    Lexer(std::string_view text, const std::map<std::string, std::string>& macros) : text_(text), macros_(macros) {}

    // Errors found while lexing (an undefined macro) are reported through
    // `error` with their line, then the rest of the line is skipped.
    Token next(const std::function<void(int, const std::string&)>& error) {
        for (;;) {
            int c;
            while ((c = get()) == ' ' || c == '\t')
                ;
            Token t;
            t.line = line_;
            if (c == '#') {
                while ((c = get()) != '\n' && c != EOF)
                    ;
            }
            if (c == '$' && macro_.empty()) {
                std::string name;
                int n;
                while ((n = get()) != EOF && (std::isalnum(n) || n == '_'))
                    name += static_cast<char>(n);
                auto it = macros_.find(name);
                if (it == macros_.end()) {
                    error(t.line, "macro '" + name + "' not defined");
                    c = n;
                    while (c != '\n' && c != EOF)
                        c = get();
                    t.type = c == EOF ? Tok::End : Tok::Newline;
                    if (c == '\n')
                        ++line_;
                    return t;
                }
                macro_ = it->second;
                macroPos_ = 0;
                // What ended the name is read after the macro's text.
                afterMacro_ = n;
                continue;
            }
            if (c == '"' || c == '\'') {
                const int quote = c;
                t.type = Tok::Quoted;
                for (;;) {
                    c = get();
                    if (c == EOF)
                        break;
                    if (c == '\\') {
                        int n = get();
                        if (n == quote || n == '\\') {
                            t.text += static_cast<char>(n);
                            continue;
                        }
                        unget(n);
                    }
                    if (c == quote)
                        break;
                    if (c == '\n') {
                        ++line_;
                        continue;
                    }
                    t.text += static_cast<char>(c);
                }
                return t;
            }
            if (c == '<' || c == '>' || c == '!' || c == '-') {
                int n = get();
                std::string two{static_cast<char>(c), static_cast<char>(n)};
                if (two == "<>" || two == "<=" || two == "><" || two == ">=" || two == "!=" || two == "->") {
                    t.type = Tok::Sym;
                    t.text = two;
                    return t;
                }
                unget(n);
            }
            if (c == '-' || std::isdigit(c)) {
                std::string digits;
                int n = c;
                do {
                    digits += static_cast<char>(n);
                } while ((n = get()) != EOF && std::isdigit(n));
                unget(n);
                if (!(digits == "-") && allowedToEndNumber(peek())) {
                    t.type = Tok::Number;
                    t.text = digits;
                    return t;
                }
                // Not a number after all: read it again as a word.
                for (auto it = digits.rbegin(); it != digits.rend(); ++it)
                    unget(static_cast<unsigned char>(*it));
                c = get();
                if (c == '-') {
                    t.type = Tok::Sym;
                    t.text = "-";
                    return t;
                }
            }
            if (std::isalnum(c) || c == ':' || c == '_') {
                t.type = Tok::Word;
                int n = c;
                do {
                    t.text += static_cast<char>(n);
                } while ((n = get()) != EOF && allowedInString(n));
                unget(n);
                return t;
            }
            if (c == '\n') {
                t.type = Tok::Newline;
                ++line_;
                return t;
            }
            if (c == EOF) {
                t.type = Tok::End;
                return t;
            }
            t.type = Tok::Sym;
            t.text = std::string(1, static_cast<char>(c));
            return t;
        }
    }

private:
    int peek() {
        int c = get();
        unget(c);
        return c;
    }

    int get() {
        if (!pushed_.empty()) {
            int c = pushed_.back();
            pushed_.pop_back();
            return c;
        }
        if (!macro_.empty()) {
            if (macroPos_ < macro_.size())
                return static_cast<unsigned char>(macro_[macroPos_++]);
            macro_.clear();
            if (afterMacro_ != EOF) {
                const int c = afterMacro_;
                afterMacro_ = EOF;
                return c;
            }
        }
        for (;;) {
            if (pos_ >= text_.size())
                return EOF;
            int c = static_cast<unsigned char>(text_[pos_++]);
            // A backslash before the end of a line joins the next line.
            if (c == '\\' && pos_ < text_.size() && text_[pos_] == '\n') {
                ++pos_;
                ++line_;
                continue;
            }
            return c;
        }
    }

    void unget(int c) {
        if (c != EOF)
            pushed_.push_back(c);
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    int line_ = 1;
    std::vector<int> pushed_;
    std::string macro_;
    std::size_t macroPos_ = 0;
    int afterMacro_ = EOF;
    const std::map<std::string, std::string>& macros_;
};

// --------------------------------------------------------------- parser ---

struct ParseError {
    int line;
    std::string message;
};

struct IfItem {
    std::string name;
    bool neg = false;
};

struct HostItem {
    AddrMatch host; // without port
};

struct IcmpItem {
    int type = 0;
    int code = -1;
    std::uint8_t proto = 0; // icmp or ipv6-icmp
};

// Which block of the file a statement belongs to; pfctl refuses to go back.
enum RuleState { StateOption = 0, StateScrub = 1, StateQueue = 2, StateNat = 3, StateDummynet = 4, StateFilter = 5 };

struct RuleParts {
    Rule base;
    std::vector<IfItem> ifaces;
    std::vector<std::uint8_t> protos;
    bool protoGiven = false;
    std::vector<HostItem> srcHosts, dstHosts;
    std::vector<PortMatch> srcPorts, dstPorts;
    std::vector<IcmpItem> icmps;
    bool flagsGiven = false;
    bool keepGiven = false;
};

class Parser {
public:
    Parser(std::string_view text, const ParseContext& context) : context_(context), lexer_(text, macros_) {}

    ParsedRuleset run() {
        for (;;) {
            std::vector<Token> statement;
            int depth = 0;
            Token t;
            int lexErrorLine = 0;
            for (;;) {
                t = lexer_.next([this, &lexErrorLine](int line, const std::string& msg) {
                    error(line, msg);
                    lexErrorLine = line;
                });
                if (t.type == Tok::End)
                    break;
                if (t.type == Tok::Newline) {
                    if (depth > 0)
                        continue;
                    break;
                }
                if (t.type == Tok::Sym && t.text == "{")
                    ++depth;
                if (t.type == Tok::Sym && t.text == "}")
                    --depth;
                statement.push_back(t);
            }
            if (lexErrorLine) {
                // The statement lost its tail; pfctl's grammar rejects it too.
                error(lexErrorLine, "syntax error");
            } else if (!statement.empty()) {
                toks_ = std::move(statement);
                pos_ = 0;
                endLine_ = t.line ? t.line : toks_.back().line;
                try {
                    parseStatement();
                } catch (const ParseError& e) {
                    error(e.line, e.message);
                }
            }
            if (t.type == Tok::End)
                break;
        }
        return std::move(result_);
    }

private:
    // ------------------------------------------------------ token access --
    const Token& peek(std::size_t ahead = 0) const {
        static const Token end{Tok::End, "", 0};
        return pos_ + ahead < toks_.size() ? toks_[pos_ + ahead] : end;
    }
    bool atEnd() const { return pos_ >= toks_.size(); }
    int line() const { return atEnd() ? endLine_ : peek().line; }
    [[noreturn]] void syntax() const { throw ParseError{line(), "syntax error"}; }
    [[noreturn]] void fail(const std::string& message) const { throw ParseError{endLine_, message}; }
    [[noreturn]] void failHere(const std::string& message) const { throw ParseError{line(), message}; }

    bool isKeyword(const Token& t, std::string_view word) const { return t.type == Tok::Word && t.text == word; }
    bool peekWord(std::string_view word, std::size_t ahead = 0) const { return isKeyword(peek(ahead), word); }
    bool acceptWord(std::string_view word) {
        if (peekWord(word)) {
            ++pos_;
            return true;
        }
        return false;
    }
    void expectWord(std::string_view word) {
        if (!acceptWord(word))
            syntax();
    }
    bool peekSym(std::string_view s, std::size_t ahead = 0) const {
        return peek(ahead).type == Tok::Sym && peek(ahead).text == s;
    }
    bool acceptSym(std::string_view s) {
        if (peekSym(s)) {
            ++pos_;
            return true;
        }
        return false;
    }
    void expectSym(std::string_view s) {
        if (!acceptSym(s))
            syntax();
    }
    void acceptComma() { acceptSym(","); }

    bool isString(const Token& t) const {
        if (t.type == Tok::Quoted)
            return true;
        return t.type == Tok::Word && !keywords().contains(t.text);
    }
    std::string expectString() {
        if (!isString(peek()))
            syntax();
        return toks_[pos_++].text;
    }
    std::string expectStringOrNumber() {
        if (!isString(peek()) && peek().type != Tok::Number)
            syntax();
        return toks_[pos_++].text;
    }
    long expectNumber() {
        if (peek().type != Tok::Number)
            syntax();
        return std::stol(toks_[pos_++].text);
    }

    void error(int line, const std::string& message) {
        result_.errors.push_back(context_.fileName + ":" + std::to_string(line) + ": " + message);
    }

    void checkRuleState(int desired) {
        if (context_.requireOrder && ruleState_ > desired)
            fail("Rules must be in order: options, normalization, queueing, translation, filtering");
        ruleState_ = desired;
    }

    // ---------------------------------------------------------- statements --
    void parseStatement() {
        const Token& first = peek();
        if (isString(first) && first.type == Tok::Word && peekSym("=", 1)) {
            std::string name = first.text;
            pos_ += 2;
            std::string value;
            while (!atEnd()) {
                if (!isString(peek()) && peek().type != Tok::Number)
                    syntax();
                if (!value.empty())
                    value += ' ';
                value += toks_[pos_++].text;
            }
            if (value.empty())
                syntax();
            macros_[name] = value;
            return;
        }
        if (first.type != Tok::Word)
            syntax();
        const std::string word = first.text;
        if (word == "set")
            parseSet();
        else if (word == "scrub")
            parseScrub();
        else if (word == "anchor" || word == "scrub-anchor" || word == "nat-anchor" || word == "rdr-anchor" ||
                 word == "dummynet-anchor")
            parseAnchorRule();
        else if (word == "pass" || word == "block")
            parseFilterRule();
        else if (word == "nat" || word == "rdr")
            parseTranslation();
        else if (word == "load")
            parseLoad();
        else
            syntax();
        if (!atEnd())
            syntax();
    }

    void parseSet() {
        expectWord("set");
        if (acceptWord("skip")) {
            expectWord("on");
            std::vector<std::string> names;
            if (acceptSym("{")) {
                while (!acceptSym("}")) {
                    names.push_back(expectString());
                    acceptComma();
                }
            } else {
                names.push_back(expectString());
            }
            checkRuleState(StateOption);
            if (!context_.anchorLoad) {
                result_.skipSet = true;
                for (auto& n : names)
                    if (std::find(result_.skip.begin(), result_.skip.end(), n) == result_.skip.end())
                        result_.skip.push_back(n);
            }
            return;
        }
        if (acceptWord("block-policy")) {
            if (acceptWord("drop"))
                blockPolicy_ = BlockPolicy::Drop;
            else if (acceptWord("return"))
                blockPolicy_ = BlockPolicy::Return;
            else
                syntax();
            checkRuleState(StateOption);
            return;
        }
        if (acceptWord("require-order")) {
            if (peek().type != Tok::Word)
                syntax();
            std::string v = toks_[pos_++].text;
            if (v != "yes" && v != "no")
                syntax();
            checkRuleState(StateOption);
            context_.requireOrder = v == "yes";
            return;
        }
        // The remaining options change nothing this simulation models; their
        // syntax is still checked loosely.
        static const std::array<std::string_view, 11> others{"optimization", "ruleset-optimization", "loginterface",
                                                             "state-policy", "debug", "hostid", "fingerprints",
                                                             "timeout", "limit", "skip", "reassemble"};
        const Token& t = peek();
        if (t.type != Tok::Word ||
            std::find(others.begin(), others.end(), std::string_view(t.text)) == others.end())
            syntax();
        ++pos_;
        if (atEnd())
            syntax();
        pos_ = toks_.size();
        checkRuleState(StateOption);
    }

    void parseLoad() {
        expectWord("load");
        expectWord("anchor");
        std::string name = expectString();
        expectWord("from");
        std::string file = expectString();
        if (!context_.anchorLoad) {
            std::string path = context_.anchorPath.empty() ? name : context_.anchorPath + "/" + name;
            result_.loadAnchors.push_back({path, file});
        }
    }

    // -------------------------------------------------------- rule pieces --
    void parseDirection(Rule& r) {
        if (acceptWord("in"))
            r.dir = Direction::In;
        else if (acceptWord("out"))
            r.dir = Direction::Out;
    }

    void parseLogQuick(Rule& r) {
        for (;;) {
            if (acceptWord("log")) {
                r.log = true;
                if (acceptSym("(")) {
                    while (!acceptSym(")")) {
                        if (atEnd())
                            syntax();
                        ++pos_;
                    }
                }
            } else if (acceptWord("quick")) {
                r.quick = true;
            } else {
                return;
            }
        }
    }

    void parseInterface(RuleParts& p) {
        if (!acceptWord("on"))
            return;
        auto item = [this]() {
            IfItem i;
            i.neg = acceptSym("!");
            i.name = expectString();
            return i;
        };
        if (acceptSym("{")) {
            while (!acceptSym("}")) {
                p.ifaces.push_back(item());
                acceptComma();
            }
            if (p.ifaces.empty())
                syntax();
        } else {
            p.ifaces.push_back(item());
        }
    }

    void parseAf(Rule& r) {
        if (acceptWord("inet"))
            r.af = Family::Inet;
        else if (acceptWord("inet6"))
            r.af = Family::Inet6;
    }

    std::uint8_t protoItem() {
        const Token& t = peek();
        if (t.type == Tok::Number) {
            ++pos_;
            long n = std::stol(t.text);
            if (n < 0 || n > 255)
                fail("protocol outside range");
            return static_cast<std::uint8_t>(n);
        }
        std::string name = expectString();
        auto p = protocolByName(name);
        if (!p)
            fail("unknown protocol " + name);
        return *p;
    }

    void parseProto(RuleParts& p) {
        if (!acceptWord("proto"))
            return;
        p.protoGiven = true;
        if (acceptSym("{")) {
            while (!acceptSym("}")) {
                p.protos.push_back(protoItem());
                acceptComma();
            }
            if (p.protos.empty())
                syntax();
        } else {
            p.protos.push_back(protoItem());
        }
    }

    void addHost(std::vector<HostItem>& out, const std::string& word, std::optional<long> maskBits, bool neg) {
        std::string name = word;
        bool network = false;
        if (auto colon = name.find(':'); colon != std::string::npos && name.ends_with(":network")) {
            name = name.substr(0, colon);
            network = true;
        }
        if (context_.interfaceAddresses) {
            if (auto addrs = context_.interfaceAddresses(name)) {
                for (const auto& a : *addrs) {
                    HostItem h;
                    h.host.addr = network ? masked(a.addr, a.prefix) : a.addr;
                    h.host.prefix = network ? a.prefix : a.addr.maxBits();
                    h.host.neg = neg;
                    if (maskBits) {
                        h.host.prefix = static_cast<int>(*maskBits);
                        h.host.addr = masked(h.host.addr, h.host.prefix);
                    }
                    out.push_back(h);
                }
                if (addrs->empty())
                    fail("no IP address found for " + word);
                return;
            }
        }
        auto addr = IpAddr::parse(word);
        if (!addr) {
            // A bare number such as 10 in 10/8 names a network too.
            if (maskBits && !word.empty() && std::all_of(word.begin(), word.end(), ::isdigit))
                addr = IpAddr::parse(word + ".0.0.0", Family::Inet);
        }
        if (!addr)
            fail("no IP address found for " + word);
        HostItem h;
        h.host.neg = neg;
        int bits = maskBits ? static_cast<int>(*maskBits) : addr->maxBits();
        if (bits < 0 || bits > addr->maxBits())
            fail("illegal netmask value " + std::to_string(bits));
        h.host.prefix = bits;
        h.host.addr = masked(*addr, bits);
        out.push_back(h);
    }

    void hostItem(std::vector<HostItem>& out) {
        const bool neg = acceptSym("!");
        const auto push = [&](AddrType type, std::string ifname = {}) {
            HostItem h;
            h.host.type = type;
            h.host.ifname = std::move(ifname);
            h.host.neg = neg;
            out.push_back(h);
        };
        if (acceptWord("any"))
            return push(AddrType::Mask); // "any" is the zero address with an empty mask
        if (acceptWord("no-route"))
            return push(AddrType::NoRoute);
        if (acceptWord("urpf-failed"))
            return push(AddrType::UrpfFailed);
        if (acceptSym("(")) {
            push(AddrType::DynIf, expectString());
            expectSym(")");
            return;
        }
        if (peekSym("<"))
            failHere("tables are not supported by this simulation");
        std::string word = expectStringOrNumber();
        std::optional<long> bits;
        if (acceptSym("/"))
            bits = expectNumber();
        addHost(out, word, bits, neg);
    }

    void parseHosts(std::vector<HostItem>& out) {
        if (acceptSym("{")) {
            while (!acceptSym("}")) {
                hostItem(out);
                acceptComma();
            }
            if (out.empty())
                syntax();
        } else {
            hostItem(out);
        }
    }

    std::uint16_t portNumber(const std::string& text) {
        if (!text.empty() && std::all_of(text.begin(), text.end(), ::isdigit)) {
            long v = std::stol(text);
            if (v < 0 || v > 65535)
                fail("illegal port value " + text);
            return static_cast<std::uint16_t>(v);
        }
        auto s = serviceByName(text);
        if (!s)
            fail("unknown port " + text);
        return *s;
    }

    PortMatch portItem() {
        PortMatch port;
        static const std::map<std::string, PortOp, std::less<>> unary{{"=", PortOp::Eq},  {"!=", PortOp::Ne},
                                                                      {"<", PortOp::Lt},  {"<=", PortOp::Le},
                                                                      {">", PortOp::Gt},  {">=", PortOp::Ge}};
        if (peek().type == Tok::Sym) {
            auto it = unary.find(peek().text);
            if (it == unary.end())
                syntax();
            ++pos_;
            port.op = it->second;
            port.a = portNumber(expectStringOrNumber());
            return port;
        }
        std::string first = expectStringOrNumber();
        if (auto colon = first.find(':'); colon != std::string::npos) {
            port.op = PortOp::Range;
            port.a = portNumber(first.substr(0, colon));
            port.b = portNumber(first.substr(colon + 1));
            return port;
        }
        port.a = portNumber(first);
        if (acceptSym("><")) {
            port.op = PortOp::Inside;
            port.b = portNumber(expectStringOrNumber());
        } else if (acceptSym("<>")) {
            port.op = PortOp::Outside;
            port.b = portNumber(expectStringOrNumber());
        } else {
            port.op = PortOp::Eq;
        }
        return port;
    }

    void parsePorts(std::vector<PortMatch>& out) {
        if (acceptSym("{")) {
            while (!acceptSym("}")) {
                out.push_back(portItem());
                acceptComma();
            }
            if (out.empty())
                syntax();
        } else {
            out.push_back(portItem());
        }
    }

    void parseIpPortSpec(std::vector<HostItem>& hosts, std::vector<PortMatch>& ports) {
        if (!peekWord("port"))
            parseHosts(hosts);
        if (acceptWord("port"))
            parsePorts(ports);
    }

    void parseFromTo(RuleParts& p) {
        if (acceptWord("all"))
            return;
        if (acceptWord("from")) {
            parseIpPortSpec(p.srcHosts, p.srcPorts);
            if (acceptWord("os"))
                failHere("OS fingerprints are not supported by this simulation");
        }
        if (acceptWord("to"))
            parseIpPortSpec(p.dstHosts, p.dstPorts);
    }

    IcmpItem icmpItem(bool v6) {
        IcmpItem item;
        item.proto = v6 ? Proto::Icmp6 : Proto::Icmp;
        const Family fam = v6 ? Family::Inet6 : Family::Inet;
        if (peek().type == Tok::Number) {
            long n = expectNumber();
            if (n < 0 || n > 255)
                fail("illegal icmp-type " + std::to_string(n));
            item.type = static_cast<int>(n);
        } else {
            std::string name = expectString();
            auto t = icmpTypeByName(name, fam);
            if (!t)
                fail(std::string("unknown ") + (v6 ? "icmp6-type " : "icmp-type ") + name);
            item.type = *t;
        }
        if (acceptWord("code")) {
            if (peek().type == Tok::Number) {
                long n = expectNumber();
                if (n < 0 || n > 255)
                    fail("illegal icmp-code " + std::to_string(n));
                item.code = static_cast<int>(n);
            } else {
                std::string name = expectString();
                auto c = icmpCodeByName(item.type, name, fam);
                if (!c)
                    fail("unknown icmp-code " + name);
                item.code = *c;
            }
        }
        return item;
    }

    void parseFilterOpts(RuleParts& p, bool scrub) {
        Rule& r = p.base;
        bool icmpGiven = false;
        while (!atEnd()) {
            if (!scrub && acceptWord("flags")) {
                if (p.flagsGiven)
                    fail("flags cannot be redefined");
                p.flagsGiven = true;
                if (acceptWord("any")) {
                    r.flagsAny = true;
                    continue;
                }
                std::string set;
                if (!peekSym("/"))
                    set = expectString();
                expectSym("/");
                std::string mask = expectString();
                auto f = parseTcpFlags(set);
                auto m = parseTcpFlags(mask);
                if (!f || !m)
                    fail("syntax error");
                r.flags = *f;
                r.flagset = *m;
                if ((r.flags & r.flagset) != r.flags)
                    fail("flags always false");
            } else if (!scrub && (peekWord("icmp-type") || peekWord("icmp6-type"))) {
                bool v6 = peekWord("icmp6-type");
                ++pos_;
                if (icmpGiven)
                    fail("icmp-type cannot be redefined");
                icmpGiven = true;
                if (acceptSym("{")) {
                    while (!acceptSym("}")) {
                        p.icmps.push_back(icmpItem(v6));
                        acceptComma();
                    }
                    if (p.icmps.empty())
                        syntax();
                } else {
                    p.icmps.push_back(icmpItem(v6));
                }
            } else if (!scrub && (peekWord("keep") || peekWord("modulate") || peekWord("synproxy"))) {
                if (p.keepGiven)
                    fail("modulate or keep cannot be redefined");
                p.keepGiven = true;
                r.keep = peekWord("keep") ? KeepState::Keep
                                          : (peekWord("modulate") ? KeepState::Modulate : KeepState::Synproxy);
                ++pos_;
                expectWord("state");
                if (acceptSym("(")) {
                    while (!acceptSym(")")) {
                        if (atEnd())
                            syntax();
                        ++pos_;
                    }
                }
            } else if (!scrub && peekWord("no") && peekWord("state", 1)) {
                if (p.keepGiven)
                    fail("modulate or keep cannot be redefined");
                p.keepGiven = true;
                pos_ += 2;
                r.keep = KeepState::None;
            } else if (acceptWord("fragment")) {
                if (scrub) {
                    if (acceptWord("reassemble") || acceptWord("crop") || acceptWord("drop-ovl"))
                        continue;
                    syntax();
                }
                r.fragment = true;
            } else if (!scrub && acceptWord("allow-opts")) {
                r.allowOpts = true;
            } else if (acceptWord("label")) {
                r.label = expectString();
            } else if (!scrub && acceptWord("tag")) {
                r.tag = expectString();
            } else if (peekWord("user") || peekWord("group") || peekWord("queue") || peekWord("probability") ||
                       peekWord("tos") || peekWord("tagged") || peekWord("rtable")) {
                failHere("'" + peek().text + "' is not supported by this simulation");
            } else if (scrub && acceptWord("no-df")) {
                r.noDf = true;
            } else if (scrub && acceptWord("random-id")) {
                r.randomId = true;
            } else if (scrub && acceptWord("min-ttl")) {
                r.minTtl = static_cast<int>(expectNumber());
            } else if (scrub && acceptWord("max-mss")) {
                r.maxMss = static_cast<int>(expectNumber());
            } else if (scrub && acceptWord("reassemble")) {
                expectWord("tcp");
                r.reassembleTcp = true;
            } else {
                syntax();
            }
        }
    }

    BlockPolicy parseBlockSpec() {
        if (acceptWord("drop"))
            return BlockPolicy::Drop;
        if (acceptWord("return"))
            return BlockPolicy::Return;
        if (acceptWord("return-rst")) {
            skipParenthesised();
            return BlockPolicy::ReturnRst;
        }
        if (acceptWord("return-icmp") || acceptWord("return-icmp6")) {
            skipParenthesised();
            return BlockPolicy::ReturnIcmp;
        }
        return blockPolicy_;
    }

    void skipParenthesised() {
        if (!acceptSym("("))
            return;
        while (!acceptSym(")")) {
            if (atEnd())
                syntax();
            ++pos_;
        }
    }

    void parseFilterRule() {
        RuleParts p;
        Rule& r = p.base;
        r.kind = RuleKind::Filter;
        if (acceptWord("pass")) {
            r.action = Action::Pass;
        } else {
            expectWord("block");
            r.action = Action::Block;
            r.block = parseBlockSpec();
        }
        parseDirection(r);
        parseLogQuick(r);
        parseInterface(p);
        if (peekWord("route-to") || peekWord("reply-to") || peekWord("dup-to") || peekWord("fastroute"))
            failHere("route options are not supported by this simulation");
        parseAf(r);
        parseProto(p);
        parseFromTo(p);
        parseFilterOpts(p, false);
        checkRuleState(StateFilter);

        if (p.flagsGiven && (r.flags || r.flagset) && p.protoGiven &&
            std::find(p.protos.begin(), p.protos.end(), Proto::Tcp) == p.protos.end())
            fail("flags only apply to tcp");
        // Pass rules keep state unless told otherwise, and stateful rules
        // match only the opening SYN unless flags are given.
        if (r.action == Action::Pass && !p.keepGiven)
            r.keep = KeepState::Keep;
        if (r.action == Action::Pass && !p.flagsGiven && !r.fragment && r.keep != KeepState::None) {
            r.flags = TcpFlag::Syn;
            r.flagset = TcpFlag::Syn | TcpFlag::Ack;
        }
        expand(p, false);
    }

    void parseScrub() {
        RuleParts p;
        Rule& r = p.base;
        expectWord("scrub");
        r.kind = RuleKind::Scrub;
        r.action = Action::Scrub;
        parseDirection(r);
        parseLogQuick(r);
        parseInterface(p);
        parseAf(r);
        parseProto(p);
        parseFromTo(p);
        parseFilterOpts(p, true);
        checkRuleState(StateScrub);
        if (r.quick)
            fail("quick does not apply to scrub");
        expand(p, false);
    }

    void parseAnchorRule() {
        RuleParts p;
        Rule& r = p.base;
        const std::string keyword = toks_[pos_++].text;
        int state = StateFilter;
        if (keyword == "scrub-anchor") {
            r.kind = RuleKind::Scrub;
            r.action = Action::Scrub;
            state = StateScrub;
        } else if (keyword == "nat-anchor") {
            r.kind = RuleKind::Nat;
            r.action = Action::Nat;
            state = StateNat;
        } else if (keyword == "rdr-anchor") {
            r.kind = RuleKind::Rdr;
            r.action = Action::Rdr;
            state = StateNat;
        } else if (keyword == "dummynet-anchor") {
            r.kind = RuleKind::Dummynet;
            r.action = Action::Dummynet;
            state = StateDummynet;
        } else {
            r.kind = RuleKind::Filter;
            r.action = Action::Pass;
        }
        r.isAnchor = true;
        r.anchorCall = expectString();
        if (peekSym("{"))
            failHere("inline anchors are not supported by this simulation");
        if (r.anchorCall.size() > 1 && r.anchorCall.back() == '/')
            fail("anchorrule: bad anchor name " + r.anchorCall);
        if (!resolveAnchorCall(context_.anchorPath, r.anchorCall, r.anchorTarget, r.wildcard))
            fail("anchorrule: bad anchor name " + r.anchorCall);
        parseDirection(r);
        parseLogQuick(r);
        parseInterface(p);
        parseAf(r);
        parseProto(p);
        parseFromTo(p);
        parseFilterOpts(p, r.kind == RuleKind::Scrub);
        checkRuleState(state);
        if (p.keepGiven)
            fail("cannot specify state handling on anchors");
        if (p.flagsGiven && (r.flags || r.flagset) && p.protoGiven &&
            std::find(p.protos.begin(), p.protos.end(), Proto::Tcp) == p.protos.end())
            fail("flags only apply to tcp");
        expand(p, true);
    }

    void parseTranslation() {
        RuleParts p;
        Rule& r = p.base;
        const std::string keyword = toks_[pos_++].text;
        r.kind = keyword == "nat" ? RuleKind::Nat : RuleKind::Rdr;
        r.action = keyword == "nat" ? Action::Nat : Action::Rdr;
        r.natPass = acceptWord("pass");
        parseInterface(p);
        parseAf(r);
        parseProto(p);
        parseFromTo(p);
        if (!acceptSym("->"))
            syntax();
        std::vector<HostItem> target;
        hostItem(target);
        if (target.size() != 1)
            fail("translation address expands to multiple addresses");
        r.redirect = target.front().host;
        if (r.action == Action::Rdr && acceptWord("port")) {
            std::string port = expectStringOrNumber();
            r.redirectPort = portNumber(port.substr(0, port.find(':')));
        }
        while (!atEnd()) {
            if (acceptWord("static-port") || acceptWord("round-robin") || acceptWord("random") ||
                acceptWord("bitmask") || acceptWord("sticky-address"))
                continue;
            syntax();
        }
        checkRuleState(StateNat);
        if (r.redirect->addr.family != Family::None && r.af == Family::None)
            r.af = r.redirect->addr.family;
        expand(p, false);
    }

    // ----------------------------------------------------------- expansion --
    static Family decideFamily(const std::vector<HostItem>& hosts, Family af) {
        if (af != Family::None || hosts.empty())
            return af;
        const Family first = hosts.front().host.addr.family;
        for (const auto& h : hosts)
            if (h.host.addr.family != first)
                return Family::None;
        return first;
    }

    void consistency(const Rule& r, std::vector<std::string>& problems) const {
        const bool ports = r.src.port.op != PortOp::None || r.dst.port.op != PortOp::None;
        if (r.proto != Proto::Tcp && r.proto != Proto::Udp && ports)
            problems.push_back("port only applies to tcp/udp");
        if (r.proto != Proto::Icmp && r.proto != Proto::Icmp6 && r.icmpType)
            problems.push_back("icmp-type/code only applies to icmp");
        if (r.af == Family::None && r.icmpType)
            problems.push_back("must indicate address family with icmp-type/code");
        if (r.proto == Proto::Icmp6 && r.af == Family::Inet)
            problems.push_back("proto icmp6 doesn't match address family inet");
        if (r.proto == Proto::Icmp && r.af == Family::Inet6)
            problems.push_back("proto icmp doesn't match address family inet6");
        if (r.allowOpts && r.action != Action::Pass)
            problems.push_back("allow-opts can only be specified for pass rules");
        if (r.fragment && (ports || r.flagset || r.icmpType))
            problems.push_back("fragments can be filtered only on IP header fields");
        if (r.action == Action::Block && r.block == BlockPolicy::ReturnRst && r.proto != Proto::Tcp)
            problems.push_back("return-rst can only be applied to TCP rules");
        if (r.action == Action::Block && r.keep != KeepState::None)
            problems.push_back("keep state on block rules doesn't make sense");
    }

    void expand(RuleParts& p, bool anchor) {
        (void)anchor;
        Rule base = p.base;
        base.af = decideFamily(p.srcHosts, base.af);
        base.af = decideFamily(p.dstHosts, base.af);
        const std::uint8_t flags = base.flags, flagset = base.flagset;

        std::vector<IfItem> ifaces = p.ifaces.empty() ? std::vector<IfItem>{IfItem{}} : p.ifaces;
        std::vector<std::uint8_t> protos = p.protos.empty() ? std::vector<std::uint8_t>{0} : p.protos;
        std::vector<HostItem> srcs = p.srcHosts.empty() ? std::vector<HostItem>{HostItem{}} : p.srcHosts;
        std::vector<HostItem> dsts = p.dstHosts.empty() ? std::vector<HostItem>{HostItem{}} : p.dstHosts;
        std::vector<PortMatch> sports = p.srcPorts.empty() ? std::vector<PortMatch>{PortMatch{}} : p.srcPorts;
        std::vector<PortMatch> dports = p.dstPorts.empty() ? std::vector<PortMatch>{PortMatch{}} : p.dstPorts;
        std::vector<std::optional<IcmpItem>> icmps;
        if (p.icmps.empty())
            icmps.push_back(std::nullopt);
        for (auto& i : p.icmps)
            icmps.push_back(i);

        int added = 0;
        for (const auto& iface : ifaces)
            for (auto proto : protos)
                for (const auto& src : srcs)
                    for (const auto& sport : sports)
                        for (const auto& dst : dsts)
                            for (const auto& dport : dports)
                                for (const auto& icmp : icmps) {
                                    Rule r = base;
                                    const Family sa = src.host.addr.family, da = dst.host.addr.family;
                                    if ((r.af != Family::None && sa != Family::None && r.af != sa) ||
                                        (r.af != Family::None && da != Family::None && r.af != da) ||
                                        (sa != Family::None && da != Family::None && sa != da))
                                        continue;
                                    if (r.af == Family::None && sa != Family::None)
                                        r.af = sa;
                                    else if (r.af == Family::None && da != Family::None)
                                        r.af = da;
                                    r.ifname = iface.name;
                                    r.ifnot = iface.neg;
                                    r.proto = proto;
                                    if (r.proto && r.proto != Proto::Tcp) {
                                        r.flags = 0;
                                        r.flagset = 0;
                                    } else {
                                        r.flags = flags;
                                        r.flagset = flagset;
                                    }
                                    r.src = src.host;
                                    r.src.port = sport;
                                    r.dst = dst.host;
                                    r.dst.port = dport;
                                    std::vector<std::string> problems;
                                    if (icmp) {
                                        r.icmpType = static_cast<std::uint16_t>(icmp->type + 1);
                                        r.icmpCode = static_cast<std::uint16_t>(icmp->code + 1);
                                        if ((r.proto == Proto::Icmp || r.proto == Proto::Icmp6) &&
                                            icmp->proto != r.proto)
                                            problems.push_back("icmp-type mismatch");
                                    }
                                    consistency(r, problems);
                                    if (!problems.empty()) {
                                        for (auto& m : problems)
                                            error(endLine_, m);
                                        error(endLine_, "skipping rule due to errors");
                                        continue;
                                    }
                                    result_.rules.push_back(r);
                                    ++added;
                                }
        if (!added)
            error(endLine_, "rule expands to no valid combination");
    }

    ParseContext context_;
    std::map<std::string, std::string> macros_;
    Lexer lexer_;
    std::vector<Token> toks_;
    std::size_t pos_ = 0;
    int endLine_ = 0;
    int ruleState_ = StateOption;
    BlockPolicy blockPolicy_ = BlockPolicy::Drop;
    ParsedRuleset result_;
};

} // namespace

bool resolveAnchorCall(std::string_view base, std::string_view call, std::string& path, bool& wildcard) {
    wildcard = false;
    if (!call.empty() && call.front() == '/') {
        path = std::string(call.substr(1));
    } else {
        path = std::string(base);
        while (call.starts_with("../")) {
            if (path.empty())
                return false;
            auto slash = path.rfind('/');
            path = slash == std::string::npos ? std::string() : path.substr(0, slash);
            call.remove_prefix(3);
        }
        if (!path.empty())
            path += '/';
        path += call;
    }
    if (auto slash = path.rfind('/'); slash != std::string::npos && path.substr(slash) == "/*") {
        wildcard = true;
        path.resize(slash);
    }
    return true;
}

ParsedRuleset parseRuleset(std::string_view text, const ParseContext& context) {
    Parser parser(text, context);
    return parser.run();
}

} // namespace orven::macsim
