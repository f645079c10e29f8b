#pragma once
// One pf rule as the kernel holds it after pfctl has expanded lists, and the
// text pfctl prints for it (print_rule of the OpenBSD 4.1 pfctl that Apple's
// descends from).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Net.h"

namespace orven::macsim {

// The rulesets of one anchor, in the order `-s rules`, `-s nat` and
// `-s dummynet` walk them.
enum class RuleKind : std::uint8_t { Scrub, Nat, Rdr, Dummynet, Filter };

enum class Action : std::uint8_t { Pass, Block, Scrub, Nat, Rdr, Dummynet };
enum class BlockPolicy : std::uint8_t { Drop, Return, ReturnRst, ReturnIcmp };
enum class Direction : std::uint8_t { Any, In, Out };
enum class PortOp : std::uint8_t { None, Eq, Ne, Lt, Le, Gt, Ge, Range, Inside, Outside };
enum class KeepState : std::uint8_t { None, Keep, Modulate, Synproxy };
enum class AddrType : std::uint8_t { Mask, DynIf, NoRoute, UrpfFailed };

namespace TcpFlag {
inline constexpr std::uint8_t Fin = 0x01, Syn = 0x02, Rst = 0x04, Push = 0x08, Ack = 0x10, Urg = 0x20, Ece = 0x40,
                              Cwr = 0x80;
}

namespace Proto {
inline constexpr std::uint8_t Icmp = 1, Tcp = 6, Udp = 17, Icmp6 = 58;
}

struct PortMatch {
    PortOp op = PortOp::None;
    std::uint16_t a = 0, b = 0;
    bool matches(std::uint16_t port) const;
    bool operator==(const PortMatch&) const = default;
};

struct AddrMatch {
    AddrType type = AddrType::Mask;
    IpAddr addr;          // family None means `any`
    int prefix = 0;       // bits of the mask
    std::string ifname;   // for `(if)`
    bool neg = false;
    PortMatch port;
    bool isAny() const { return type == AddrType::Mask && addr.family == Family::None; }
    bool sameAddress(const AddrMatch& o) const {
        return type == o.type && addr == o.addr && prefix == o.prefix && ifname == o.ifname && neg == o.neg;
    }
};

struct Rule {
    RuleKind kind = RuleKind::Filter;
    Action action = Action::Pass;
    BlockPolicy block = BlockPolicy::Drop;
    bool isAnchor = false;      // an anchor call (anchor, scrub-anchor, nat-anchor, ...)
    std::string anchorCall;     // the name as written in the rule
    std::string anchorTarget;   // resolved path of the called anchor
    bool wildcard = false;      // `name/*`: the children of the target are evaluated
    Direction dir = Direction::Any;
    bool log = false;
    bool quick = false;
    std::string ifname;
    bool ifnot = false;
    Family af = Family::None;
    std::uint8_t proto = 0;
    AddrMatch src, dst;
    std::uint8_t flags = 0, flagset = 0;
    bool flagsAny = false;      // `flags any` was written
    std::uint16_t icmpType = 0; // type + 1, 0 when absent (as pf stores it)
    std::uint16_t icmpCode = 0; // code + 1
    KeepState keep = KeepState::None;
    bool fragment = false;
    bool allowOpts = false;
    std::string label;
    std::string tag;
    // Scrub options.
    bool noDf = false, randomId = false, reassembleTcp = false;
    int minTtl = 0, maxMss = 0;
    // Translation (nat/rdr) target and `pass` flag.
    bool natPass = false;
    std::optional<AddrMatch> redirect;
    std::uint16_t redirectPort = 0;
};

// The line pfctl lists for a rule, without a newline. `anchorCallShown`
// overrides the anchor name (recursive listings show the last component).
std::string printRule(const Rule& rule, std::optional<std::string_view> anchorCallShown = std::nullopt);

std::string printAddress(const AddrMatch& address);

// Name tables shared by the parser, the printer and the probes.
std::optional<std::uint8_t> protocolByName(std::string_view name);
std::string protocolName(std::uint8_t number);
std::optional<std::uint16_t> serviceByName(std::string_view name);
std::optional<std::string> serviceName(std::uint16_t port, std::string_view proto);
std::optional<int> icmpTypeByName(std::string_view name, Family family);
std::optional<std::string> icmpTypeName(int type, Family family);
std::optional<int> icmpCodeByName(int type, std::string_view name, Family family);
std::optional<std::string> icmpCodeName(int type, int code, Family family);
std::string tcpFlagsString(std::uint8_t flags);
std::optional<std::uint8_t> parseTcpFlags(std::string_view text);

} // namespace orven::macsim
