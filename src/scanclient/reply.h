// Inside scanclient/: the daemon's answer, read into the record.
#pragma once

#include "scanclient/scanclient.h"
#include "tagmsg/tagmsg.h"

// 0, or a negative status; what was read so far then stays in the record for MailScanFree, but no
// entries.
int MailScanReadReply(MailScanRecord& record, TagMsgNode* root);
