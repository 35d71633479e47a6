// web/: the page, the reports and the accounts over HTTP.
//
// This header: what is served, GET / (the page), GET /live (numbers), GET /find (a message's
// story), POST / (reports), and what machines ask (machines.h).
#pragma once

#include "daemons/statd/held/held.h"
#include "daemons/statd/report/query.h"
#include "daemons/statd/store/recorder.h"
#include "daemons/statd/web/accounts.h"
#include "daemons/statd/web/server.h"

namespace stats {

class HttpSite final : public HttpHandler {
  public:
    // All outlive it.
    HttpSite(Recorder& recorder, ReportReader& reader, Accounts& accounts)
        : recorder_(recorder), reader_(reader), accounts_(accounts) {}

    std::optional<HttpResponse> Judge(const HttpRequest& request) override;
    HttpResponse Answer(const HttpRequest& request) override;

  private:
    HttpResponse Page();
    static HttpResponse Find(const std::string& asked);
    HttpResponse Live();
    HttpResponse Held(const HttpRequest& request);
    HttpResponse MakeReport(const HttpRequest& request);

    Recorder& recorder_;
    ReportReader& reader_;
    Accounts& accounts_;
    HeldPages held_;
};

}  // namespace stats
