#include "agent/rpc/connection_slots.h"

#include "qmrt/log.h"

using namespace std::chrono_literals;

namespace {

constexpr auto TELL_INTERVAL = 60s;
constexpr char USER_PREFIX[] = "user ";

} // namespace

std::shared_ptr<Connection_Slots::Slot> Connection_Slots::take_local() {
    {
        std::lock_guard const guard(mutex_);
        if (!enter(local_, "", limits_.connections, limits_.connections)) {
            tell("this host", local_, "");
            return nullptr;
        }
    }
    return std::shared_ptr<Slot>(new Slot(shared_from_this(), Slot::LOCAL, ""));
}

std::shared_ptr<Connection_Slots::Slot> Connection_Slots::take_reader(uid_t uid) {
    std::string const origin = USER_PREFIX + std::to_string(uid);
    {
        std::lock_guard const guard(mutex_);
        if (!enter(readers_, origin, limits_.readers, limits_.connections_of_reader)) {
            tell(origin, readers_, " of readers");
            return nullptr;
        }
    }
    return std::shared_ptr<Slot>(new Slot(shared_from_this(), Slot::READER, origin));
}

std::shared_ptr<Connection_Slots::Slot> Connection_Slots::take_stranger(std::string const& origin,
                                                                        bool is_here) {
    std::string const shown = is_here ? USER_PREFIX + origin : origin;
    {
        std::lock_guard const guard(mutex_);
        Room& room = strangers_of(shown);
        if (!enter(room, shown, limits_.strangers, limits_.strangers_of_origin)) {
            tell(shown, room, " that have not shown the access key");
            return nullptr;
        }
    }
    return std::shared_ptr<Slot>(new Slot(shared_from_this(), Slot::STRANGER, shown));
}

Connection_Slots::Room& Connection_Slots::strangers_of(std::string const& origin) {
    return origin.starts_with(USER_PREFIX) ? strangers_here_ : strangers_of_network_;
}

bool Connection_Slots::enter(Room& room, std::string const& origin, size_t most,
                             size_t most_of_origin) {
    auto const found = room.of_origin.find(origin);
    size_t const here = found == room.of_origin.end() ? 0 : found->second;
    if (room.all >= most || here >= most_of_origin)
        return false;
    ++room.all;
    ++room.of_origin[origin];
    return true;
}

void Connection_Slots::leave(Room& room, std::string const& origin) {
    --room.all;
    auto const found = room.of_origin.find(origin);
    if (--found->second == 0)
        room.of_origin.erase(found);
}

bool Connection_Slots::move(Slot& slot) {
    std::lock_guard const guard(mutex_);
    if (slot.room_ != Slot::STRANGER)
        return true;
    if (!enter(keyed_, slot.origin_, limits_.connections, limits_.connections_per_address)) {
        tell(slot.origin_, keyed_, "");
        return false;
    }
    leave(strangers_of(slot.origin_), slot.origin_);
    slot.room_ = Slot::KEYED;
    return true;
}

void Connection_Slots::give_back(Slot const& slot) {
    std::lock_guard const guard(mutex_);
    leave(room_of(slot), slot.origin_);
}

Connection_Slots::Room& Connection_Slots::room_of(Slot const& slot) {
    switch (slot.room_) {
    case Slot::LOCAL:
        return local_;
    case Slot::READER:
        return readers_;
    case Slot::KEYED:
        return keyed_;
    case Slot::STRANGER:
        break;
    }
    return strangers_of(slot.origin_);
}

/** Whoever is refused again and again fills no log with it. */
void Connection_Slots::tell(std::string const& origin, Room const& room, char const* of_what) {
    Time const now = std::chrono::steady_clock::now();
    if (told_at_ != Time() && now - told_at_ < TELL_INTERVAL)
        return;
    told_at_ = now;
    QMRT_LOG(LM_WARNING, "Refused a connection from %s, there are %Q%s\n", origin.c_str(),
             static_cast<ACE_UINT64>(room.all), of_what);
}

size_t Connection_Slots::taken() const {
    std::lock_guard const guard(mutex_);
    return local_.all + readers_.all + strangers_here_.all + strangers_of_network_.all + keyed_.all;
}
