/* SPDX-License-Identifier: MIT */
// Link-layer services for the API layer of this library (not exported):
// the ports of its connections, several per transport, each reached through
// its own handler.
#ifndef LLC_LINKS_H
#define LLC_LINKS_H

#include "LLC_HandlerTable.h"

// What a connection asks the link layer to open.
struct KtLinkRequestS {
    KtTransportE transport;
    const char* name;     // serial device path, Bluetooth address, or the USB serial number wanted
    const char* passKey;  // Bluetooth
    DWORD baud;           // serial
};

// Opens one more port for a connection: as the transport's Kt open function
// (the same checks, results and log entries, named after it), but a
// transport holds up to KT_MAX_PORTS_PER_TRANSPORT ports.  *pLink receives
// the port's handler.
Vyrix_ReturnStatus LlcOpenLink(const KtLinkRequestS& request, KtHandlerRef* pLink);
// Closes that port as the transport's Kt close function does.  A link that
// is already closed, or that a forked child inherited, gives 0x16000000
// (the child's reference is kept, never used).
Vyrix_ReturnStatus LlcCloseLink(KtTransportE transport, const KtHandlerRef& link);

// The link that calls naming no connection reach: the first open
// transport's first port, or null.
KtHandlerRef LlcDefaultLink();

// As KtSendMsg, KtRemoveMsg (waiting until a deadline) and
// KtRemoveConnectionlessMsg, on the given port; a null link means the first
// open transport's port (for a take inside the callback: the port whose
// message it announces).  A link inherited across fork() is not connected.
Vyrix_ReturnStatus LlcSend(const KtHandlerRef& link, KtXlnkMsgS sMsg);
Vyrix_ReturnStatus LlcWaitReply(const KtHandlerRef& link, KtXlnkMsgS* pMsg, const CDeadline& deadline);
Vyrix_ReturnStatus LlcTakeMessage(const KtHandlerRef& link, KtXlnkMsgS* pMsg);

// Lets go of a reference to a link.  A link that a forked child inherited
// is never destroyed there (that would close the parent's port): its
// reference is kept for the life of the process.
void LlcReleaseLink(KtHandlerRef& link);

// Returns once no callback for the link runs on the callback thread (at
// once when called on that thread).
void LlcQuiesceCallbacks(const KtHandlerRef& link);

// Drops the replies queued on the port without waiting, and ends its wait
// for a reply: stale replies before a new command.
void LlcDropReplies(const KtHandlerRef& link);

#endif  // LLC_LINKS_H
