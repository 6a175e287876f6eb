/* SPDX-License-Identifier: MIT */
// Carries the library's process-wide locks across fork().  A forked child
// starts with one thread, and a lock that another thread of the parent held
// at that moment would stay held in the child for ever; so before the fork
// every registered lock is taken, outermost first, and afterwards released
// again in both processes.  The child also gets a new generation number:
// whatever the parent had open (links, threads, wake descriptors) carries
// an older one and is left alone by the child.
#ifndef LLC_FORKGUARD_H
#define LLC_FORKGUARD_H

class CForkGuard {
public:
    // The locks in the order they nest, outermost first.
    enum Rank { eRANK_LIBRARY = 0, eRANK_REGISTRY = 1, eRANK_DISPATCHER = 2, eRANK_LOG = 3, eRANK_COUNT = 4 };
    typedef void (*Hook)();

    // Sets the hooks of one lock: `prepare` takes it before a fork,
    // `parent` releases it in the parent afterwards, `child` puts it right
    // in the child (all run on the forking thread).  Any may be null.
    static void Register(Rank rank, Hook prepare, Hook parent, Hook child);

    // 0 in the process that loaded the library; one more in each forked
    // child than in its parent.
    static unsigned Generation();
};

#endif  // LLC_FORKGUARD_H
