// Link-layer services for the API layer of this library (not exported).
#ifndef LLC_LINKS_H
#define LLC_LINKS_H

// Drops the replies queued on the first open transport without waiting, and
// ends its wait for a reply: stale replies before a new command.
void LlcDropReplies();

#endif  // LLC_LINKS_H
