#pragma once

#include "common/log.h"

#include <QStringList>

#include <memory>
#include <mutex>

namespace velocast::test {

// Collects the lines written through logLine while it lives.
class LogRecorder {
public:
    LogRecorder()
    {
        previous_ = setLogTap([lines = lines_](const char *, const QString &text) {
            std::lock_guard lock(lines->mutex);
            lines->list << text;
        });
    }
    ~LogRecorder() { setLogTap(previous_); }
    QStringList lines() const
    {
        std::lock_guard lock(lines_->mutex);
        return lines_->list;
    }
    int count(const QString &line) const { return int(lines().count(line)); }

private:
    struct Lines {
        std::mutex mutex;
        QStringList list;
    };
    std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
    LogTap previous_;
};

} // namespace velocast::test
