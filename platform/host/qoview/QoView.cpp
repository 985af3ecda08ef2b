// Host build: an event is reported by one INFO line under "qoview".
#define LOG_TAG "qoview"

#include <qoview/QoView.h>

#include <log/log.h>

QoEvent::QoEvent(int eventId) : mEventId(eventId) {}

void QoEvent::PutInt(const std::string& key, int value) {
    mFields += " " + key + "=" + std::to_string(value);
}

void QoEvent::PutString(const std::string& key, const std::string& value) {
    mFields += " " + key + "=" + value;
}

int QoView::Report(const QoEvent& event) {
    ALOGI("eventId=%d%s", event.GetEventId(), event.GetFields().c_str());
    return 0;
}
