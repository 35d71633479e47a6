// The rows of the table of keys, in the order in which the reference shows them.
#pragma once

#include "trelis/keys/forms.h"
#include "trelis/keys/mail_daemon_rows.h"
#include "trelis/keys/table.h"

namespace trelis {

inline constexpr char kProxyKey[] = "/VTWIN/Agents/VTSMTPProxy";
inline constexpr char kInterfacesKey[] = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces";
inline constexpr char kInterfaceKey[] = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/*";
inline constexpr char kAddressListKey[] = "/VTWIN/Filters/AS/AllowDenyIPList";
inline constexpr char kBlackListKey[] = "/VTWIN/Filters/AS/SenderBlackList";
inline constexpr char kHarvestingKey[] = "/VTWIN/Filters/AS/DirectoryHarvesting";
inline constexpr char kMailDaemonKey[] = "/VTWIN/Daemons/MailDaemon";
inline constexpr char kAttachmentRuleKey[] = "/VTWIN/Daemons/MailDaemon/Attachments/Rules/*";
inline constexpr char kContentRuleKey[] = "/VTWIN/Daemons/MailDaemon/Content/Rules/*";
inline constexpr char kLoggerKey[] = "/VTWIN/Daemons/LoggerDaemon";
inline constexpr char kLogLevelKey[] = "/VTUX/LoggerDaemon/LogLevel";
inline constexpr char kStatsKey[] = "/VTWIN/Daemons/StatsDaemon";
inline constexpr char kStoreKey[] = "/VTWIN/Daemons/StoreDaemon";
inline constexpr char kCrashKey[] = "/VTWIN/VTSUBMIT";
inline constexpr char kVersionsKey[] = "/VTWIN/Versions";

inline constexpr char kDenyText[] = "550 5.7.1 Message Rejected";
inline constexpr long long kMostSize = std::numeric_limits<long long>::max();

inline constexpr KeyRow kInterfaceRows[] = {
    Text("GreetingDomainName", "127.0.0.1", "the name in the proxy's own replies")
        .Width(64)
        .Alias("greeting")
        .Form(kHostName)
        .EmptyCounts(),
    Text("IPAddress", "", "address to listen on, IPv4 or IPv6; `::` serves both families")
        .Width(64)
        .Alias("address")
        .Form(kListenAddress)
        .Shown("all IPv4 addresses"),
    Number("Port", "25", -kMostInt, kMostInt, "port to listen on").Sane(1, 0xFFFF),
    Text("ServerToForward", "127.0.0.1:10025",
         "the real mail server: host, host:port, [IPv6]:port; each address of a name is tried in "
         "turn")
        .Width(64)
        .Alias("server")
        .Form(kMailServer),
    Text("RelayNetworks/*/IPAddress", "",
         "clients of this network may send to any recipient: an IPv4 address with the mask below, "
         "or a network (192.0.2.0/24, 2001:db8::/32) or IPv6 address without one; what can't be "
         "read lets nobody")
        .Width(64)
        .Alias("relaynetworks.*.address")
        .Form(kNetwork)
        .RegistersList(),
    Text("RelayNetworks/*/Mask", "", "the mask of an IPv4 address; without one a single address")
        .Width(64)
        .Form(kMask),
    Text("MailDomains/*", "", "the value is a domain that everybody may send to")
        .Form(kMailDomain)
        .RegistersList(),
    Number("MaxThreads", "0", 0, 50, "sessions at a time, at most 50; 0: no limit")
        .OutOfBounds(Beyond::kMost)
        .Shown("no limit")
        .Registers("50"),
    Size("MaxMessageSize", "", 0, kMostSize,
         "bytes, or with K, M, G; a larger message is refused with 552, and the SIZE offered is no "
         "larger; 0: no limit")
        .Sane(kLeastMail, kMostSize)
        .Shown("what the scanner takes"),
    Seconds("TimeoutBetweenNOOPs", "180", 1, 3600,
            "seconds between signs of life to the server, 1 to 3600"),
    Seconds("ConnectionTimeout", "600", 1, 3600,
            "seconds to wait for a client or server, reading and writing, 1 to 3600"),
    Text("Name", "", "a name for people; nothing reads it").Counts("never"),
};

// Nothing of these is on, or registered, unasked.
inline constexpr KeyRow kInternetRows[] = {
    Choice("TLS/Mode", "off", "off|offer|require|wrapped",
           "TLS from clients: `off`; `offer`, STARTTLS is offered; `require`, no mail without it; "
           "`wrapped`, from the first byte (a word that is none of these counts as `offer`)")
        .Unknown("offer"),
    Text("TLS/Certificate", "", "PEM file with the certificate and its chain"),
    Text("TLS/Key", "", "PEM file with its key").Shown("the certificate's file"),
    Choice("TLS/MinVersion", "1.2", "1.2|1.3", "the oldest TLS that a client may speak"),
    Text("TLS/Ciphers", "",
         "ciphers for clients, as OpenSSL writes lists; of TLS 1.3 by their names")
        .Shown("the library's"),
    Flag("AuthOnlyOverTLS", "AUTH is not offered, and refused with 538, before TLS"),
    Choice(
        "ServerTLS/Mode", "off", "off|try|require|verify|wrapped",
        "TLS to the server: `off`; `try`, where it offers STARTTLS; `require`, or mail gets 454; "
        "`verify`, its certificate must be good too; `wrapped`, from the first byte, the "
        "certificate verified if one of the next two says by what (a word that is none of these "
        "counts as `verify`)")
        .Unknown("verify"),
    Text("ServerTLS/CAFile", "", "PEM file with the authorities that may sign its certificate")
        .Shown("the system's store"),
    Text("ServerTLS/Name", "", "the name that must be in its certificate")
        .Shown("the server's host"),
    Seconds("ConnectTimeout", "30", 1, 3600,
            "seconds to wait for a connection to each of the server's addresses, 1 to 3600"),
    Text("FallbackServers/*", "",
         "the value is a server, as `ServerToForward`, that is tried when the ones before it take "
         "no "
         "connection")
        .Width(64)
        .Form(kMailServer),
    Text("Trust/*", "",
         "the value is an address or network (192.0.2.0/24, 2001:db8::/32) that may tell the "
         "address of a client")
        .Width(64)
        .Form(kNetwork),
    Flag("ProxyProtocol", "those of `Trust` begin with a PROXY header, version 1 or 2"),
    Choice("TellServer", "off", "off|xclient|xforward|proxy1|proxy2",
           "how the server is told the client's address: `off`; `xclient` or `xforward`, where it "
           "offers them; `proxy1` or `proxy2`, a PROXY header in front of everything"),
    Flag("TellServerRequired", "mail gets 451 where the server can't be told"),
    Flag("Pipelining", "PIPELINING is offered to clients, and used where the server offers it"),
    Choice("EarlyTalker", "ignore", "ignore|refuse",
           "a client that doesn't wait for the greeting, or for an answer without an offer of "
           "PIPELINING: `ignore`; `refuse`, it gets 554 and the session ends"),
    Choice("BareNewline", "accept", "accept|normalize|reject",
           "a LF or CR alone in a message: `accept`, it stays; `normalize`, it becomes CR LF; "
           "`reject`, the message gets 521 and the session ends"),
    Flag("IdInReplies",
         "all refusals of the proxy's own end in the id of the message or session, as most do "
         "anyway: `550 Rejected by Vantrel. [ID]`"),
};

inline constexpr KeyRow kProxyRows[] = {
    Text("SpoolGroup", "", "a group that may read the spool files besides their owner").Width(64),
    Written("ActiveConnections", "running sessions, after each quiet 10 seconds"),
    Written("RTP/Active", "Y: the proxy is registered").Registers("Y"),
    Written("Path", "the program's file"),
};

inline constexpr KeyRow kAddressListRows[] = {
    Flag("Enabled", "judge each client by its address").Registers("Y"),
    Text("Addresses/*/IP", "",
         "an address, or a network: an IPv4 address with the mask below, or with its prefix "
         "(192.0.2.0/24, 2001:db8::/32)")
        .Form(kNetwork)
        .RegistersList(),
    Text("Addresses/*/Mask", "", "the mask of an IPv4 address; without one a single address")
        .Form(kMask),
    Number("Addresses/*/Action", "", -kMostInt, kMostInt,
           "1 allow, 2 deny; a matching allow wins over any deny; a deny of all IPv4 addresses is "
           "one of IPv6 too, an allow is not")
        .Sane(1, 2),
};

inline constexpr KeyRow kBlackListRows[] = {
    Flag("Enabled", "judge each sender").Registers("Y"),
    Text("WildcardsList/*", "", "the value is a pattern with `*` and `?`")
        .Form(kSenderPattern)
        .RegistersList(),
    Text("UsersList/*", "", "the value is an address").Form(kListedSender).RegistersList(),
    Flag("EnabledDropConnection", "a listed sender ends the session").Registers("Y"),
    Flag("EnabledSendDenyMessage", "answer a listed sender with the text below").Registers("Y"),
    Text("DenyMessage", kDenyText, "that text, one line of a reply: `550 5.7.1 Go away`")
        .Form(kRefusal),
};

inline constexpr KeyRow kHarvestingRows[] = {
    Flag("Enabled", "slow down clients that ask for recipients that don't exist").Registers("Y"),
    Seconds("ResponseTimeout", "45", 1, kMostInt,
            "seconds until the answer; the session ends behind it"),
    Flag("EnabledSendDenyMessage", "answer with the text below").Registers("Y"),
    Text("DenyMessage", kDenyText, "that text, one line of a reply: `550 5.7.1 Go away`")
        .Form(kRefusal),
};

inline constexpr char kActionWords[] = "reject|quarantine|drop|redirect|remove|tag|put off|pass";
inline constexpr char kActionMeaning[] =
    "what becomes of the message: `reject` (550), `quarantine`, `drop`, `redirect` (to "
    "`RedirectAddress`), `remove` the attachment, `tag`, `put off` (451) or `pass`; any other word "
    "puts off";

inline constexpr KeyRow kAttachmentRuleRows[] = {
    Text("FileName", "",
         "patterns with `*`, `?` and `[a-z]`, `;` between two, for the attachment's name or that "
         "of a file in it")
        .Width(4096)
        .Shown("any name"),
    Text("DeclaredType", "", "media types with `*`, `;` between two, as the message declares them")
        .Width(4096)
        .Form(kTypeList)
        .Shown("any type"),
    Text("RealType", "", "the same, as the bytes show them")
        .Width(4096)
        .Form(kTypeList)
        .Shown("any type"),
    Size("MinSize", "", 0, kMostSize, "bytes, or with K, M, G, decoded").Shown("any size"),
    Text("Action", "reject", kActionMeaning).Words(kActionWords),
    Text("Text", "", "the text of a reject, or of a tag"),
};

inline constexpr KeyRow kContentRuleRows[] = {
    Text("Where", "subject;text",
         "`sender`, `recipient`, `subject`, `header:NAME`, `text`, `html`, `;` between two")
        .Form(kPlaceList),
    Text("Pattern", "", "a regular expression in Perl's syntax").Width(8192),
    Text("Action", "reject", kActionMeaning).Words(kActionWords),
    Text("Text", "", "the text of a reject, or of a tag"),
};

inline constexpr KeyRow kLogLevelRows[] = {
    Text("*", "high",
         "for each class of event (`Virus`, `FileNotScanned`, `Warning`, `Error`, `Info`, ...): "
         "`none`, nothing; `low`, a line in the log file; `medium`, syslog besides, as "
         "information; `high`, there as a notice, warning or error")
        .Width(31)
        .Words("none|low|medium|high")
        .EmptyCounts(),
};
inline constexpr KeyRow kLoggerRows[] = {
    Number("MaxLogSize", "10485760", 1, kMostSize,
           "bytes of one log file; four older ones are kept")
        .In(Unit::kBytes)
        .Counts(kAtStart),
    Choice("Format", "text", "text|json",
           "of a line: `text`; `json`, an object with the same names (docs/log.md)")
        .Counts("with the next line"),
    Written("Path", "the program's file"),
};

inline constexpr KeyRow kStatsRows[] = {
    Number("HTTPPort", "8484", 1, kMostInt, "port of the page and of reports").Sane(1, 0xFFFF),
    Text("HTTPAddress", "127.0.0.1", "IPv4 address to listen on").Form(kV4Address),
    Choice("MetricsAccess", "loopback", "loopback|account|all",
           "who may read `/metrics`, `/healthz` and `/readyz`: `loopback`, clients on this host, "
           "without an account, and nobody else; `account`, who has one; `all`, everybody (a word "
           "that is none of these counts as `account`)")
        .Unknown("account"),
    Number("KeepDays", "400", 0, 100000, "days that records are kept; 0: for ever")
        .In(Unit::kDays)
        .OutOfBounds(Beyond::kNearest),
    Text("Accounts/*", "", "salted hash of an account's password, made with `vtstatd passwd NAME`"),
    Text("QuarantineAccounts/*", "", "the value is an account that may use the quarantine's page"),
    Written("Path", "the program's file"),
};

inline constexpr KeyRow kStoreRows[] = {
    Flag("RemoteReads",
         "answer reads of other hosts, below `/VTWIN/Daemons` only, without the accounts")
        .Registers("N"),
    Text("Address", "", "IPv4 address to listen on")
        .Form(kV4Address)
        .Registers("")
        .Shown("all addresses"),
    Number("Port", "8485", 1, 0xFFFF, "port to listen on, and to ask others on")
        .OutOfBounds(Beyond::kDefault),
    Written("Path", "the program's file"),
};

inline constexpr KeyRow kCrashRows[] = {
    Text("AppPath", "",
         "full path of a crash-report tool; a library `vtch.dll` beside it is loaded from there")
        .Width(259),
};
inline constexpr KeyRow kVersionRows[] = {
    Written("*/Name", "what the program is called"),
    Written("*/Version", "its version when it was registered"),
};

inline constexpr KeySection kKeySections[] = {
    {kInterfaceKey, "interface.*", "Interfaces", Program::kProxy, "with the next session",
     kInterfaceRows},
    {kInterfaceKey, "interface.*", "Interfaces on the Internet", Program::kNone,
     "with the next session", kInternetRows},
    {kProxyKey, "proxy", "The proxy", Program::kProxy,
     "at the start, and when an interface changes", kProxyRows},
    {kAddressListKey, "filters.addresses", "Addresses of clients", Program::kProxy, "at once",
     kAddressListRows, 256},
    {kBlackListKey, "filters.senders", "Senders", Program::kProxy, "at once", kBlackListRows, 256},
    {kHarvestingKey, "filters.recipients", "Unknown recipients", Program::kProxy, "at once",
     kHarvestingRows, 256},
    {kMailDaemonKey, "maild", "Scanning", Program::kMailDaemon, "with the next scan",
     kMailDaemonRows},
    {kAttachmentRuleKey, "attachments.*", "Rules on attachments", Program::kNone,
     "with the next scan", kAttachmentRuleRows},
    {kContentRuleKey, "content.*", "Rules on content", Program::kNone, "with the next scan",
     kContentRuleRows},
    {kLogLevelKey, "logd.level", "Levels of the log", Program::kLogger, "with the next event",
     kLogLevelRows},
    {kLoggerKey, "logd", "The log", Program::kLogger, kAtStart, kLoggerRows},
    {kStatsKey, "statd", "Statistics", Program::kStatistics, "within a second", kStatsRows},
    {kStoreKey, "store", "The store for other hosts", Program::kStore, "within a second",
     kStoreRows, 64},
    {kCrashKey, "crash", "Crash reports", Program::kNone, kAtStart, kCrashRows},
    {kVersionsKey, "versions", "Versions", Program::kNone, kAtStart, kVersionRows},
};

// Keys with names of their own, which `register` writes into a store that doesn't know the program
// yet: whoever has an older one has made up his mind.
inline constexpr RegisteredKey kRegisteredKeys[] = {
    {Program::kMailDaemon, "/VTWIN/Daemons/MailDaemon/Attachments/Rules/executable-names/FileName",
     "*.exe;*.com;*.scr;*.pif;*.bat;*.cmd;*.cpl;*.dll;*.sys;*.ocx;*.msi;*.msp;*.mst;*.msix;*.appx;"
     "*.appinstaller;*.application;*.gadget;*.hta;*.js;*.jse;*.vbs;*.vbe;*.vb;*.wsf;*.wsh;*.wsc;"
     "*.sct;*.ps1;*.ps1xml;*.ps2;*.psc1;*.psm1;*.msh;*.lnk;*.inf;*.reg;*.scf;*.url;*.website;"
     "*.settingcontent-ms;*.library-ms;*.search-ms;*.searchconnector-ms;*.chm;*.hlp;*.jar;*.jnlp;"
     "*.xll;*.xbap;*.vhd;*.vhdx;*.iso;*.img;*.one;*.ade;*.adp;*.mde;*.diagcab;*.ace;*.arj"},
    {Program::kMailDaemon, "/VTWIN/Daemons/MailDaemon/Attachments/Rules/executable-names/Action",
     "quarantine"},
    {Program::kMailDaemon, "/VTWIN/Daemons/MailDaemon/Attachments/Rules/executable-types/RealType",
     "application/x-dosexec;application/x-executable;application/x-ms-shortcut;application/x-msi;"
     "application/vnd.microsoft.portable-executable;application/x-sharedlib;"
     "application/x-pie-executable;application/x-mach-binary;application/x-iso9660-image"},
    {Program::kMailDaemon, "/VTWIN/Daemons/MailDaemon/Attachments/Rules/executable-types/Action",
     "quarantine"},
};

}  // namespace trelis
