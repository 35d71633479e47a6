// maild/: the mail-scanning daemon vtmaild. The proxy hands it the path of a spool file and the
// envelope; it answers whether the message may go on. clamd does the scanning; what stands here is
// what makes its word a verdict on the message that will be delivered:
//
//   settings    what the configuration says
//   forms       the message as each receiver may come to read it
//   encrypted, archivelook    what nobody can look into
//   connection, clamd         one scan by the engine
//   engine, probes, zipfile, signatures   whether the engine is to be believed, shown by probes
//   unpack      what an engine that hides its limits can still be believed about
//   coding, walk    the message as its parts, bodies decoded
//   antivirus   the parts that the engine could see otherwise than a reader
//   antispam    what rspamd or spamd thinks of the message
//   judge       all of that together: the judgement of one message
//   attachments, content      the rules on them; `rules` reads them
//   sections    the judgement, and what the rules say
//   verdict     what the sections found, and what becomes of the message
//   actions     that done: tags, parts taken out, the quarantine
//   reply       the answer to the proxy
//   shell       `vtmaild test`
//   verdictstats, log         what is counted and logged
//
// This header: the daemon itself.
#pragma once

#include <atomic>
#include <memory>

#include "daemons/frame/daemon.h"
#include "daemons/maild/antispam/antispam.h"
#include "daemons/maild/engine/engines.h"
#include "daemons/maild/judge.h"
#include "daemons/maild/settings.h"
#include "daemons/maild/verdictstats.h"
#include "daemons/quarantine/keeper.h"
#include "daemons/quarantine/quarantine.h"
#include "tagmsg/owned.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/settings.h"

class MailDaemon final : public Daemon {
  public:
    MailDaemon();

  protected:
    trelis::Registration Keys() const override;
    bool Start(int argc, char** argv) override;
    int Threads() const override { return threads_; }
    void Answer(const void* data, std::uint32_t length, void** reply,
                std::uint32_t* replyLength) override;
    void End() override;
    int StopSeconds() const override;
    void AnswerRequest(OwnedMessage& request, void** reply, std::uint32_t* replyLength);

  private:
    std::shared_ptr<const Settings> ReadSettings();
    quarantine::Limits QuarantineLimits() const;

    bool null_ = false;
    int threads_ = 1;
    VerdictStats stats_;
    Engines engines_;
    maild::Antispam antispam_;
    std::atomic<bool> following_{false};  // the engine has started
    mutable trelis::Followed<Settings> settings_{trelis::kMailDaemonKey,
                                                 [this] { return ReadSettings(); }};
    quarantine::Quarantine quarantine_;
    quarantine::Keeper keeper_{quarantine_};  // asks the settings for its limits
};
