// Inside keys/: the mail daemon's rows of the table, which rows.h has whole.
#pragma once

#include "trelis/keys/forms.h"
#include "trelis/keys/table.h"

namespace trelis {

inline constexpr KeyRow kMailDaemonRows[] = {
    Text("Engines/*", "",
         "the value is where an engine (clamd) of this name listens: `unix:PATH`, `HOST:PORT` or "
         "`[IPv6]:PORT`, up to 16 of them; without any it is `ClamdSocket`")
        .Form(kServiceAddress),
    Text("ClamdSocket", "", "clamd's Unix socket")
        .Shown("`clamd/clamd.sock` of the instance if there, else `/run/clamav/clamd.ctl`")
        .Registers(""),
    Text("ClamdConf", "",
         "the file that the log names where clamd's settings need a change; it is not read")
        .Shown("`clamd/clamd.conf` of the instance if there, else `/etc/clamav/clamd.conf`")
        .Registers(""),
    Size("MaxFileSize", "26214400", 1, 2LL << 30,
         "bytes, or with K, M, G, at most 2 GB; a larger message counts as too big")
        .Sane(kLeastMail, 2LL << 30),
    Seconds("ConnectTimeout", "5", 1, 3600, "seconds to reach clamd"),
    Seconds("ScanTimeout", "120", 1, 3600, "seconds for one message"),
    Number("Threads", "16", 1, 200, "scans at a time").Counts(kAtStart),
    Text("VirusAction", "reject", "`reject`, `drop` or `redirect`").Words("reject|drop|redirect"),
    Text("Antivirus/Action", "",
         "what becomes of infected mail, as of a rule; any other word rejects")
        .Words("reject|quarantine|drop|redirect|put off|remove|tag|pass")
        .Alias("antivirusaction")
        .Shown("`VirusAction`"),
    Text("RedirectAddress", "", "where `redirect` sends infected mail; without it, it is rejected")
        .Form(kMailboxes)
        .Registers(""),
    Text(
        "WhenEncrypted", "pass",
        "mail with an encrypted archive: `pass`, `refuse` (550) or `put off` (451); any other word "
        "puts off")
        .Words("pass|refuse|put off"),
    Number("MaxDepth", "40", 1, 100, "parts within parts that are looked into"),
    Number("MaxParts", "1000", 1, 100000, "parts of one message that are looked at"),
    Size("MaxHeaderBytes", "262144", 1024, 16LL << 20,
         "bytes, or with K, M: headers of one message or part that are looked at"),
    Text("TooComplex", "put off",
         "mail beyond the bounds of its parts or archives, or with more readings than can be "
         "scanned: `put off` "
         "(451), `refuse` (550) or `pass`; any other word puts off")
        .Words("put off|refuse|pass"),
    Text("WhenAmbiguous", "pass",
         "mail whose parts readers see in different ways, as nobody but a forger makes it: `pass`, "
         "each reading scanned, `refuse` (550) or `put off` (451); any other word puts off")
        .Words("pass|refuse|put off")
        .Registers("refuse"),
    Number("MaxArchiveDepth", "8", 1, 50,
           "archives within archives that rules on attachments look into"),
    Number("MaxArchiveEntries", "10000", 1, 1000000,
           "files in the archives of one message that they look at"),
    Size("MaxArchiveBytes", "268435456", 1024, 64LL << 30,
         "bytes, or with K, M, G, of these files together; what is beyond any of these three "
         "bounds is too complex"),
    Text("Antispam/Address", "",
         "who says whether mail is spam: rspamd's normal worker, `HOST:PORT` or `unix:PATH`, or "
         "SpamAssassin, `spamd:HOST:PORT` or `spamd:unix:PATH`")
        .Form(kSpamAddress)
        .Shown("nobody"),
    Text("Antispam/TagScore", "", "the score from which on mail is tagged, as `6` or `6.5`")
        .Width(32)
        .Form(kScore)
        .Shown("the engine's own"),
    Text("Antispam/QuarantineScore", "", "the score from which on mail goes to the quarantine")
        .Width(32)
        .Form(kScore)
        .Shown("the engine's own"),
    Text("Antispam/RejectScore", "", "the score from which on mail is refused with 550")
        .Width(32)
        .Form(kScore)
        .Shown("the engine's own"),
    Text("Antispam/SubjectPrefix", "", "what is put in front of the subject of tagged mail")
        .Width(64),
    Seconds("Antispam/Timeout", "20", 1, 3600,
            "seconds to wait for the answer, within what `ScanTimeout` has left"),
    Text("Antispam/WhenDown", "pass",
         "mail while nobody answers: `pass`, unjudged, or `put off` (451); any other word puts off")
        .Words("pass|put off"),
    Flag("PassWhenDown", "deliver unscanned while clamd doesn't answer").Registers("N"),
    Flag("PassWhenBusy", "deliver unscanned what clamd has no place for").Registers("N"),
    Flag("PassWhenTimedOut", "deliver unscanned what is not scanned in time").Registers("N"),
    Flag("PassWhenTooBig", "deliver unscanned what can't be scanned whole").Registers("N"),
    Number("Quarantine/KeepDays", "30", 0, 100000,
           "days that a message is kept in the quarantine; 0: until there is no room")
        .In(Unit::kDays)
        .OutOfBounds(Beyond::kNearest),
    Size("Quarantine/MaxSize", "1073741824", 1, std::numeric_limits<long long>::max(),
         "bytes, or with K, M, G, of all messages there; the oldest make room for a new one"),
    Written("RTP/MaxFileSize", "bytes that are taken where `MaxFileSize` says nothing; 0: all"),
    Written("Path", "the program's file"),
};

}  // namespace trelis
