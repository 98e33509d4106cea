// Larkpost: send e-mail through one SMTP relay. The one header a host includes.
#ifndef LARKPOST_LARKPOST_H
#define LARKPOST_LARKPOST_H

#include "larkpost/create.h"
#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/string_builder.h"
#include "larkpost/tcp_stream.h"
#include "larkpost/text.h"
#include "larkpost/version.h"

#endif
