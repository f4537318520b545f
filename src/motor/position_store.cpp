#include "motor/position_store.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "motor/coordinates.h"
#include "ubus/method_args.h"
#include "ubus/method_reply.h"

#include <initializer_list>
#include <iterator>

namespace {

// A save decides inside its transaction whether what it has read still counts. It does not when a command has taken the
// head since to where no position may be stored: each such command changes saveEpoch. Nor when a save that began later
// has stored its position: savesBegun counts them, and lastSaved is the one whose position is stored.

/// What a save has seen before it reads the axes.
struct SaveTicket {
    uint32_t epoch = gContext.position.saveEpoch.load();
    uint32_t requests = gContext.position.saveRequests.load();
    uint32_t number = gContext.position.savesBegun.fetch_add(1) + 1;
};

bool maySave()
{
    return gContext.position.saves.load() == Saves::Allowed && gContext.motion.calibrating.load() == 0;
}

void disarm()
{
    gContext.position.savePending.store(false);
    timerStop(&gContext.timers.saveStepsTimer);
}

/// Stores both positions, if both axes rest and the ticket still counts then; disarms saveStepsTimer.
void save(const SaveTicket& ticket)
{
    if (!maySave())
        return;
    HeadStatus head{};
    if (motorReadStatus(head) != RESULT_OK || head.running())
        return;
    const UciTransaction transaction(UCI_PTZD);
    if (!maySave() || gContext.position.saveEpoch.load() != ticket.epoch ||
        static_cast<int32_t>(ticket.number - gContext.position.lastSaved) < 0)
        return;
    gContext.position.lastSaved = ticket.number;
    setStoredPosition(head, {"saveCurSteps", __LINE__});
    (void)transaction.commit(); // logged there; the next motion saves again
    disarm(); // still inside the transaction: a command that inhibits saves disarms the timer after this
    // A command may have moved the head and armed the timer meanwhile; that position must be saved too.
    if (gContext.position.saveRequests.load() != ticket.requests) {
        gContext.position.savePending.store(true);
        timerStart(&gContext.timers.saveStepsTimer, SAVE_STEPS_NS, SAVE_STEPS_NS);
    }
    LOG_TRACE("saveCurSteps end\n");
}

} // namespace

bool savesInhibit()
{
    disarm();
    gContext.position.saveEpoch.fetch_add(1);
    return gContext.position.saves.exchange(Saves::Inhibited) == Saves::Allowed;
}

void savesAllowAtRest()
{
    Saves inhibited = Saves::Inhibited;
    gContext.position.saves.compare_exchange_strong(inhibited, Saves::AllowedAtRest);
}

void savesHeadRests()
{
    Saves moving = Saves::AllowedAtRest;
    gContext.position.saves.compare_exchange_strong(moving, Saves::Allowed);
}

void saveStepsArm()
{
    if (gContext.position.power_off_recover.load() == 0)
        return;
    gContext.position.savePending.store(true);
    gContext.position.saveRequests.fetch_add(1); // before the timer: see save
    timerStart(&gContext.timers.saveStepsTimer, SAVE_STEPS_NS, SAVE_STEPS_NS);
}

void saveCurSteps(void*)
{
    const SaveTicket ticket; // before the question: saveNowAndDisarm changes the epoch behind it
    if (gContext.position.savePending.load())
        save(ticket);
}

void saveNowAndDisarm()
{
    save({});
    const UciTransaction transaction(UCI_PTZD); // a save that has read the axes is through, or finds the new epoch
    disarm();
    gContext.position.saveEpoch.fetch_add(1);
}

StoredSteps storedSteps(AxisIndex axis)
{
    const UciTransaction transaction(UCI_PTZD);
    int32_t steps = -1;
    const bool read = cfg_uci_get_int_value(UCI_PTZD, gContext.axes[axis].section, "steps", &steps) == 0;
    return {steps < 0 ? homeSteps(axis) : steps, read};
}

StoredPosition storedPosition()
{
    const UciTransaction transaction(UCI_PTZD);
    return {{storedSteps(PAN), storedSteps(TILT)}};
}

StoredPosition storedPositionLogged(LogSite caller)
{
    const StoredPosition stored = storedPosition();
    for (const AxisIndex axis : {PAN, TILT})
        if (!stored.axes[axis].read)
            logWrite(LOG_LEVEL_ERROR, caller, "error to get option %s.steps\n", gContext.axes[axis].section);
    return stored;
}

void setStoredPosition(const HeadStatus& head, LogSite caller)
{
    for (const AxisIndex axis : {PAN, TILT}) {
        const char* section = gContext.axes[axis].section;
        if (cfg_uci_set_int_value(UCI_PTZD, section, "steps", head[axis].position) != 0)
            logWrite(LOG_LEVEL_ERROR, caller, "error to set option %s.steps\n", section);
    }
}

void ubusSetPowerOffRecover(const Call& call)
{
    LOG_TRACE("UBUS: rcv msg sucessed.\n");
    blob_attr* args[std::size(powerOffRecoverPolicy)];
    parseArgs(powerOffRecoverPolicy, args, call);
    const int32_t recover = args[0] ? decimalArg(args[0]) : -1;
    ResultCode result = RESULT_OK;
    {
        const UciTransaction transaction(UCI_PTZD);
        if (recover != 0 && recover != 1) {
            LOG_ERROR("UBUS: Invalied parameter.\n");
            result = ERR_PARAM;
        } else {
            gContext.position.power_off_recover.store(recover);
            if (cfg_uci_set_int_value(UCI_PTZD, "config", "power_off_recover", recover) != 0)
                LOG_ERROR("error to set option %s.power_off_recover\n", "config");
        }
        (void)transaction.commit(); // logged there; memory keeps the new value either way
    }
    replyCode(call, result);
}
