// email::RegisterMta: where the host finds the mail back-end.
//
// A mail module builds its back-end (an email::MtaInterface, defined by the
// mail library above the platform) and hands it over here. The host owns it
// from then on; it lives until the process ends and the platform never
// deletes it, so a pointer from GetMta stays valid for the life of the
// process. Thread-safe.
#pragma once

namespace email {

class MtaInterface;

// Makes mta the back-end the host uses. A later registration replaces an
// earlier one (which stays alive). Throws pnl_err::Error (type "module") for
// a null pointer.
void RegisterMta(MtaInterface* mta);

// The registered back-end, or nullptr when none is.
MtaInterface* GetMta();

// Forgets the registered back-end without deleting it (tests).
void ForgetMta();

}  // namespace email
