// Stub: replaced by the protocol message implementation.
#include "cm_kernel.h"

const MsgSet MSG_E003_NOT_EXISTING{"E003-BASICS  %s > %s not yet existing - please restart ORL kelda.",
                                   "E003-BASICS  %s > %s existiert noch nicht - Neustart",
                                   "E003-BASICS  %s > %s gibts no ned - bittschee neistartn"};
const MsgSet MSG_W003_CMD_WARNING{"W003-BASICS  Command execution produced a warning: %s > %s",
                                  "W003-BASICS  Command execution produced a warning: %s > %s",
                                  "W003-BASICS  Command execution produced a warning: %s > %s"};
const MsgSet MSG_FATAL_SOFTWARE_ERROR{"Fatal software error FILE=%s LINE=%d (%s)",
                                      "Fataler Software Fehler FILE=%s ZEILE=%d (%s)",
                                      "Fataler Software Fehler FILE=%s ZEILE=%d (%s)"};
const MsgSet MSG_GLBV_INVALID_SERVICE{"?? invalid service %c", "?? ungültiger Parameter %c",
                                      "?? deppada Paramätta %c", "?? Le Parametre %c est erroné"};

const char* msg_text(const MsgSet& set, LANGUAGES lang) {
  switch (lang) {
    case LANG_DE: return set.de;
    case LANG_BY: return set.by;
    case LANG_FR: return set.fr ? set.fr : set.en;
    default: return set.en;
  }
}

void FPROT(const sPROT*, const char*, ...) {}
