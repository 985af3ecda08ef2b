// The platform event reporter: one event id with typed fields, reported at once.
#ifndef VYMM_QOVIEW_H
#define VYMM_QOVIEW_H

#include <string>

class QoEvent {
public:
    explicit QoEvent(int eventId);

    void PutInt(const std::string& key, int value);
    void PutString(const std::string& key, const std::string& value);

    int GetEventId() const { return mEventId; }
    // The fields as " key=value" pairs in the order put.
    const std::string& GetFields() const { return mFields; }

private:
    int mEventId;
    std::string mFields;
};

class QoView {
public:
    // Returns 0 once the event is handed over.
    static int Report(const QoEvent& event);
};

#endif
