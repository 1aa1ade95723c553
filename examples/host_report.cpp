// host_report.cpp - what a support engineer wants to see first about a node of the cluster: how its
// name resolves, the system and its memory, where the installation lies, its network cards and
// which of them is the primary one, and the ports that its daemons may use.
//
//     host_report              an aligned table
//     host_report --json       the same for programs
//     host_report --by-name    prefer the card whose address the host's name resolves to
//
// The program only asks and prints. Exit status: 0, or 2 for an unknown option.
#include "koutil/koutil.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <net/if.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

// A named value. People and programs sometimes want it in another form: such a value is shown in
// the table only, or in JSON only, as a number.
enum class Form { kText, kTableOnly, kJsonNumber };

struct Item {
    std::string name;
    std::string value;
    Form form = Form::kText;
};

struct Section {
    std::string name;
    std::vector<Item> items;
};

struct Card {
    std::string name;
    std::string mac;
    std::vector<std::string> flags;
    std::vector<std::string> addresses;
    bool primary = false;
};

struct Report {
    std::vector<Section> sections;
    std::vector<Card> cards;
    std::string reason; // why the primary card is the primary one
    std::vector<std::string> remarks;
};

// The library reports what is wrong with the ports file through this hook.
std::vector<std::string> messages;

void keep_message(int type, char *text)
{
    constexpr int kWarning = 2;
    if (type == kWarning) {
        text[strcspn(text, "\n")] = '\0';
        messages.emplace_back(text);
    }
}

std::string text_of(const in46addr_t &address)
{
    char text[256];
    return RawIp(&address, text);
}

std::string size_text(uint64_t bytes)
{
    char text[16];
    SizeStr(bytes, text);
    return text;
}

std::string spaced(std::string name)
{
    for (char &c : name) {
        c = c == '_' ? ' ' : c;
    }
    return name;
}

std::string host_name()
{
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

Section describe_host(std::vector<std::string> &remarks)
{
    Section section = {"host", {{"name", host_name()}}};
    in46addr_t address;
    if (GetHostByName(section.items[0].value.c_str(), &address) == 0) {
        char name[256];
        section.items.push_back({"resolves_to", text_of(address)});
        section.items.push_back({"answers_as", GetHostFromIpFailCache(&address, name)});
        if (IsLocalAddr(&address) == 0) {
            remarks.emplace_back("the host's name resolves to an address of another host");
        }
    } else {
        remarks.emplace_back(errno == ENOENT ? "the host's name is unknown or has no usable address"
                             : errno == EAGAIN
                                 ? "the host's name does not resolve now, the name server fails"
                                 : "the host's name does not resolve, the resolver fails");
    }
    char system[256];
    GetOsVersion(system, sizeof system);
    section.items.push_back({"system", system});
    return section;
}

Section describe_memory()
{
    uint64_t resident;
    uint64_t address_space;
    get_rss_virt(&resident, &address_space);
    const std::string mebibytes = std::to_string(resident);
    return {"memory",
            {{"physical", size_text(get_ram_size_in_bytes()), Form::kTableOnly},
             {"this_program", mebibytes + " MB", Form::kTableOnly},
             {"physical_bytes", std::to_string(get_ram_size_in_bytes()), Form::kJsonNumber},
             {"this_program_mebibytes", mebibytes, Form::kJsonNumber}}};
}

Section describe_installation(std::vector<std::string> &remarks)
{
    Section section = {"installation",
                       {{"root", GetVornRoot()},
                        {"configuration", GetVornConfigDir()},
                        {"logs", GetVornLogRoot()},
                        {"data", GetVornDataDir()},
                        {"debug", GetVornDebugDir()},
                        {"service_events", GetVornRasDir()},
                        {"statistics", GetVornZelstatsDir()},
                        {"programs", GetVornBinDir()},
                        {"help", GetVornHelpDir()},
                        {"libraries", GetVornLibDir()},
                        {"oem", GetVornOemDir()},
                        {"install", GetVornInstallDir()},
                        {"ldap", GetVornLdapDir()}}};
    std::string missing;
    for (const Item &item : section.items) {
        KovaStat_t status;
        if (KovaStat(item.value.c_str(), &status) != 0 || status.KovaFiType != KOVA_FITYPE_DIR) {
            missing += " " + spaced(item.name) + ",";
        }
    }
    if (!missing.empty()) {
        missing.pop_back();
        remarks.push_back("these directories do not exist:" + missing);
    }
    return section;
}

Section describe_ports(std::vector<std::string> &remarks)
{
    uint16_t lowest;
    uint16_t highest;
    uint16_t port_mapper;
    WriteLog = keep_message;
    genportrange(&lowest, &highest, &port_mapper, 0);
    WriteLog = nullptr;
    remarks.insert(remarks.end(), messages.begin(), messages.end());
    const std::string low = std::to_string(lowest);
    const std::string high = std::to_string(highest);
    const std::string mapper = std::to_string(port_mapper);
    const bool any = lowest == 0 && highest == 0;
    return {"ports",
            {{"range", any ? "any" : low + " to " + high, Form::kTableOnly},
             {"port_mapper", port_mapper == 0 ? "standard" : mapper, Form::kTableOnly},
             {"lowest", low, Form::kJsonNumber},
             {"highest", high, Form::kJsonNumber},
             {"alternative_port_mapper", mapper, Form::kJsonNumber}}};
}

std::vector<std::string> flag_names(int flags)
{
    constexpr std::pair<int, const char *> names[] = {
        {IFF_UP, "UP"},           {IFF_BROADCAST, "BROADCAST"}, {IFF_POINTOPOINT, "POINTOPOINT"},
        {IFF_RUNNING, "RUNNING"}, {IFF_NOARP, "NOARP"},         {IFF_PROMISC, "PROMISC"},
        {IFF_MASTER, "MASTER"},   {IFF_SLAVE, "SLAVE"},         {IFF_MULTICAST, "MULTICAST"}};
    std::vector<std::string> found;
    for (const auto &[bit, name] : names) {
        if ((flags & bit) != 0) {
            found.emplace_back(name);
        }
    }
    return found;
}

// "001122334455" with colons.
std::string mac_text(std::string_view digits)
{
    std::string text;
    for (size_t i = 0; i < digits.size(); i++) {
        text += (i > 0 && i % 2 == 0 ? ":" : "") + std::string(1, digits[i]);
    }
    return text;
}

Card describe_card(const NicInfo_t &nic)
{
    Card card;
    card.name = ko::field(nic.ni_name);
    card.mac = mac_text(ko::field(nic.ni_mac));
    card.flags = flag_names(nic.ni_flags);
    for (const in46addr_t &address : ko::addresses(nic)) {
        card.addresses.push_back(text_of(address));
    }
    return card;
}

// The library's rules in words, for the card that it put first.
std::string reason_for(const Card &card, bool by_name)
{
    in46addr_t address;
    if (by_name && _HostLookupR(host_name().c_str(), &address, 0) == 0) {
        for (const std::string &each : card.addresses) {
            if (each == text_of(address)) {
                return "the host's name resolves to its address " + each;
            }
        }
    }
    if (card.name == "em1" || card.name == "eth0") {
        return "it is named " + card.name;
    }
    return "it is the first with a MAC and an IPv4 address, and none is named em1 or eth0";
}

// The host's lists as one question built them. The library drops its lists after some seconds; a
// second question after a slow answer of the resolver could get others, without the preference.
struct Lists {
    explicit Lists(bool by_name)
    {
        by_name ? enumerate_auth_ids(&macs) : enumerate_mac_addrs(&macs);
        const ko::Lock guard(ipaddrs_lock);
        first_address = saved_ipaddrs[0];
        nics = saved_nics;
    }
    mac_addrs_t macs;
    in46addr_t first_address;
    SysNics_t nics;
};

// The primary card stands behind the first MAC and the first address, an IPv4 one.
void find_primary(Report &report, const Lists &lists, bool by_name)
{
    const auto macs = ko::macs(lists.macs);
    for (Card &card : report.cards) {
        const bool first_mac = !macs.empty() && card.mac == mac_text(macs[0] + 2);
        const bool first_address = !card.addresses.empty() &&
                                   card.addresses[0] == text_of(lists.first_address) &&
                                   card.addresses[0].find(':') == std::string::npos;
        if (first_mac && first_address) {
            card.primary = true;
            report.reason = reason_for(card, by_name);
            return;
        }
    }
    report.reason = "no card has both a MAC and an IPv4 address";
}

void describe_cards(Report &report, bool by_name)
{
    const auto lists = std::make_unique<Lists>(by_name); // large
    for (const NicInfo_t &nic : ko::cards(lists->nics)) {
        report.cards.push_back(describe_card(nic));
    }
    find_primary(report, *lists, by_name);
}

// Prints a text in lines that fit a terminal.
void print_wrapped(const std::string &text)
{
    constexpr size_t kWidth = 76;
    size_t at = 0;
    while (text.size() - at > kWidth) {
        const size_t blank = text.rfind(' ', at + kWidth);
        if (blank == std::string::npos || blank <= at) {
            break;
        }
        printf("  %s\n  ", text.substr(at, blank - at).c_str());
        at = blank + 1;
    }
    printf("  %s\n", text.substr(at).c_str());
}

void print_card(const Card &card)
{
    std::string flags;
    for (const std::string &flag : card.flags) {
        flags += " " + flag;
    }
    printf("%c %-15s  %-18s%s\n", card.primary ? '*' : ' ', card.name.c_str(), card.mac.c_str(),
           flags.c_str());
    for (const std::string &address : card.addresses) {
        printf("%20s%s\n", "", address.c_str());
    }
}

void print_table(const Report &report)
{
    for (const Section &section : report.sections) {
        printf("%s\n", section.name.c_str());
        for (const Item &item : section.items) {
            if (item.form != Form::kJsonNumber) {
                printf("  %-16s %s\n", spaced(item.name).c_str(), item.value.c_str());
            }
        }
        puts("");
    }
    puts("network cards");
    const char *mark = "no primary card";
    for (const Card &card : report.cards) {
        print_card(card);
        mark = card.primary ? "* primary" : mark;
    }
    print_wrapped(std::string(mark) + ": " + report.reason);
    puts(report.remarks.empty() ? "" : "\nremarks");
    for (const std::string &remark : report.remarks) {
        print_wrapped(remark);
    }
}

std::string quoted(const std::string &text)
{
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            result += escape;
        } else {
            result += c;
        }
    }
    return result + "\"";
}

std::string quoted(const std::vector<std::string> &texts)
{
    std::string result = "[";
    for (const std::string &text : texts) {
        result += (result.size() > 1 ? ", " : "") + quoted(text);
    }
    return result + "]";
}

void print_json(const Report &report)
{
    puts("{");
    for (const Section &section : report.sections) {
        printf("  %s: {", quoted(section.name).c_str());
        const char *separator = "\n";
        for (const Item &item : section.items) {
            if (item.form != Form::kTableOnly) {
                const bool number = item.form == Form::kJsonNumber;
                printf("%s    %s: %s", separator, quoted(item.name).c_str(),
                       number ? item.value.c_str() : quoted(item.value).c_str());
                separator = ",\n";
            }
        }
        puts("\n  },");
    }
    printf("  \"network_cards\": [");
    const char *separator = "\n";
    for (const Card &card : report.cards) {
        printf("%s    {\"name\": %s, \"mac\": %s, \"primary\": %s,\n     \"flags\": %s,\n"
               "     \"addresses\": %s}",
               separator, quoted(card.name).c_str(), quoted(card.mac).c_str(),
               card.primary ? "true" : "false", quoted(card.flags).c_str(),
               quoted(card.addresses).c_str());
        separator = ",\n";
    }
    printf("\n  ],\n  \"primary_because\": %s,\n  \"remarks\": %s\n}\n",
           quoted(report.reason).c_str(), quoted(report.remarks).c_str());
}

constexpr const char kUsage[] =
    "usage: host_report [--json] [--by-name]\n"
    "Says how this host looks to the file system.\n"
    "  --json      print JSON instead of a table\n"
    "  --by-name   prefer the card whose address the host's name resolves to\n";

} // namespace

int main(int argc, char **argv)
{
    bool json = false;
    bool by_name = false;
    for (int i = 1; i < argc; i++) {
        const std::string option = argv[i];
        if (option == "--help") {
            fputs(kUsage, stdout);
            return 0;
        }
        if (option != "--json" && option != "--by-name") {
            fprintf(stderr, "host_report: unknown option %s\n%s", argv[i], kUsage);
            return 2;
        }
        json = json || option == "--json";
        by_name = by_name || option == "--by-name";
    }
    set_caller_name(const_cast<char *>("host_report"));

    Report report;
    report.sections.push_back(describe_host(report.remarks));
    report.sections.push_back(describe_memory());
    report.sections.push_back(describe_installation(report.remarks));
    report.sections.push_back(describe_ports(report.remarks));
    describe_cards(report, by_name);
    json ? print_json(report) : print_table(report);
    return 0;
}
