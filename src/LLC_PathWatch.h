/* SPDX-License-Identifier: MIT */
// The pause before reopening a serial device ends when its path appears
// again: a name created or moved into its directory (a device node made
// anew, a symbolic link pointed at another terminal), seen through inotify.
#ifndef LLC_PATHWATCH_H
#define LLC_PATHWATCH_H

#include <string>

#include "LLC_ArrivalWatch.h"

class CPathWatch : public CArrivalWatch {
public:
    explicit CPathWatch(const char* path);
    ~CPathWatch() override;

protected:
    int Source() override;
    bool TakeArrival() override;

private:
    std::string m_directory;
    std::string m_name;
    int m_inotifyFd;
    bool m_tried;  // the watch is set up on the first pause
};

#endif  // LLC_PATHWATCH_H
