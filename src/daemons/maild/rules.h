// Inside maild/: the rules of the sections, read from the configuration store.
#pragma once

#include "daemons/maild/attachments/rule.h"
#include "daemons/maild/content/rule.h"

// In the byte order of their names. A rule on attachments with an action that is none puts off, so
// that a slip of the pen lets nothing through. A rule on content whose pattern or places are none
// is left out. Both are told in the log once. Any thread.
maild::AttachmentRules LoadAttachmentRules();
maild::ContentRules LoadContentRules();
