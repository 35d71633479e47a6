"""`vtsmtpproxy check` about rules, actions, engines, scores and the quarantine."""

from check_test import MAIL, Checking

ATTACHMENTS = MAIL + "/Attachments/Rules/a"
CONTENT = MAIL + "/Content/Rules/a"
SPAM = MAIL + "/Antispam"
KEPT = MAIL + "/Quarantine"


class Filters(Checking):
    def test_what_the_filters_go_by(self):
        self.one_at_a_time((
            ({MAIL + "/WhenEncrypted": "reject"}, "error", None, "pass, refuse, put off"),
            ({MAIL + "/WhenAmbiguous": "Refuse"}, "error", None, "pass, refuse, put off"),
            ({MAIL + "/TooComplex": "putoff"}, "error", None, "put off"),
            ({MAIL + "/Antivirus/Action": "redirect"}, "warning", None, "RedirectAddress"),
            ({MAIL + "/Antivirus/Action": "delete"}, "error", None, "quarantine"),
            ({MAIL + "/Antivirus/Action": "pass"}, "warning", None, "reject"),
            ({MAIL + "/Engines/a": "127.0.0.1"}, "error", None, "HOST:PORT"),
            ({MAIL + "/Engines/a": "unix:clamd.sock"}, "error", None, "unix:PATH"),
            ({MAIL + "/Engines/a": "::1:3310"}, "error", None, "[IPv6]:PORT"),
            ({MAIL + "/Engines/b": "127.0.0.1:3310", MAIL + "/Engines/a": "127.0.0.1:3310"}, "warning", None, "delete one"),
            (dict([(MAIL + "/Engines/q", "127.0.0.1:17")] + [(MAIL + "/Engines/%c" % (97 + n), "127.0.0.1:%d" % (n + 1))
                                                             for n in range(16)]), "warning", None, "nobody needs"),
            ({SPAM + "/Address": "rspamd"}, "error", None, "HOST:PORT"),
            ({SPAM + "/Address": "spamd:/run/spamd.sock"}, "error", None, "spamd:unix:PATH"),
            ({SPAM + "/TagScore": "six", SPAM + "/Address": "127.0.0.1:9"}, "error", None, "6.5"),
            ({SPAM + "/RejectScore": "15"}, "warning", None, "Antispam/Address"),
            ({SPAM + "/TagScore": "15", SPAM + "/RejectScore": "6.5", SPAM + "/Address": "127.0.0.1:9"}, "warning", None,
             "tag, quarantine, reject"),
            ({SPAM + "/QuarantineScore": "15", SPAM + "/RejectScore": "-6", SPAM + "/Address": "127.0.0.1:9"}, "warning", None,
             "tag, quarantine, reject"),
            ({SPAM + "/WhenDown": "reject"}, "error", None, "put off"),
            ({ATTACHMENTS + "/FileName": "*.exe", ATTACHMENTS + "/Action": "block"}, "error", ATTACHMENTS + "/Action", "reject"),
            ({ATTACHMENTS + "/Action": "redirect", ATTACHMENTS + "/FileName": "*.exe"}, "warning", None, "RedirectAddress"),
            ({ATTACHMENTS + "/Action": "reject"}, "warning", ATTACHMENTS + "/FileName", "delete the rule"),
            ({ATTACHMENTS + "/FileName": " ; "}, "warning", None, "MinSize"),
            ({ATTACHMENTS + "/FileName": "*.[a-z"}, "warning", None, "]"),
            ({ATTACHMENTS + "/MinSize": "ten"}, "error", None, "K, M or G"),
            ({ATTACHMENTS + "/RealType": "exe"}, "error", None, "image/*"),
            ({ATTACHMENTS + "/DeclaredType": "image/*;exe"}, "error", None, "image/*"),
            ({CONTENT + "/Pattern": "(cheap"}, "error", None, "Perl"),
            ({CONTENT + "/Pattern": "cheap", CONTENT + "/Where": "body"}, "error", CONTENT + "/Where", "header:NAME"),
            ({CONTENT + "/Pattern": "cheap", CONTENT + "/Where": "subject;header:"}, "error", CONTENT + "/Where", "header:NAME"),
            ({CONTENT + "/Where": "subject"}, "error", CONTENT + "/Pattern", "delete the rule"),
            ({CONTENT + "/Action": "refuse", CONTENT + "/Pattern": "cheap"}, "error", None, "reject"),
            ({CONTENT + "/Action": "redirect", CONTENT + "/Pattern": "cheap"}, "warning", None, "RedirectAddress"),
            ({KEPT + "/KeepDays": "a month"}, "error", None, "days"),
            ({KEPT + "/MaxSize": "1M", MAIL + "/Antivirus/Action": "quarantine"}, "warning", None, "at least 26214400"),
            ({KEPT + "/MaxSize": "800000G", MAIL + "/Antivirus/Action": "quarantine"}, "warning", None, "make room"),
        ))

    def test_filters_that_are_right(self):
        self.proxy.load({
            SPAM + "/Address": "spamd:unix:/run/spamd.sock", SPAM + "/TagScore": "5", SPAM + "/QuarantineScore": "8.5",
            SPAM + "/RejectScore": "15", MAIL + "/Engines/a": "[2001:db8::7]:3310", MAIL + "/Engines/b": "unix:/run/clamd.sock",
            MAIL + "/RedirectAddress": "virus@example.org", MAIL + "/Antivirus/Action": "redirect",
            ATTACHMENTS + "/FileName": "*.exe; *.[jv]s;[[]x]*", ATTACHMENTS + "/RealType": "*", ATTACHMENTS + "/Action": "remove",
            MAIL + "/Attachments/Rules/b/MinSize": "10M", MAIL + "/Attachments/Rules/c/FileName": "", KEPT + "/MaxSize": "30M",
            CONTENT + "/Where": "Subject; header:List-Id;", CONTENT + "/Pattern": r"(?i)^\[spam\]", CONTENT + "/Action": "put off"})
        self.assert_fine()


del Checking  # no cases of its own
