// `test`, on both services: no parameters, no action; a sign of life. The body is not read.
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/service_names.h"

namespace {

void answer(ks_io* io, const char* handler, const char* service) {
  Json::Value reply;
  reply["handler"] = handler;
  reply["service"] = service;
  reply_json(reply, io);
}

}  // namespace

void test_handler(ks_io* io, int) {
  answer(io, "test_handler", kMainServiceName);
}

void nos_test_sendmail_srv_handler(ks_io* io, int) {
  answer(io, "nos_test_sendmail_srv_handler", kMailServiceName);
}
