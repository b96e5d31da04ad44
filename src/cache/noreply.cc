#include "cache/noreply.h"

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "platform/mutex_guard.h"
#include "platform/nms_event.h"

namespace {

constexpr int32_t no_reply_event = 10801001;
constexpr int32_t threshold = 10;

} // namespace

void dnsproxy_noreply_count()
{
    const mutex_guard lock(&dnsproxy_data.noReplyLock);
    if (++dnsproxy_data.noReplyCount < threshold)
        return;
    dnsproxy_data.noReplyCount = 0;
    if (dnsproxy_data.noReplyArmed == 1) {
        nms_event_notify(no_reply_event, nullptr, "{}");
        dnsproxy_data.noReplyArmed = 0;
    }
}

void dnsproxy_noreply_reset()
{
    {
        const mutex_guard lock(&dnsproxy_data.noReplyLock);
        dnsproxy_data.noReplyCount = 0;
        dnsproxy_data.noReplyArmed = 1;
    }
    DNSPROXY_LOG(TRACE, __func__, 0, "%s", "");
}
