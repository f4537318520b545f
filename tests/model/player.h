#pragma once
// Plays sequences on a daemon in the lab and compares it with the model after every step.

#include "evidence.h"
#include "head_model.h"
#include "steps.h"

#include "lab/lab.h"

#include <chrono>
#include <string>

/// The heads that sequences are played on: their travels do not divide evenly, or have fewer steps than coordinates.
inline constexpr int HEADS = 3;
LabOptions headOptions(int head);

struct Verdict {
    std::string mismatch; // empty: the daemon follows the rules
    bool inconclusive = false;
};

class Player {
public:
    /// `lab` runs with `options`.
    Player(Lab& lab, const LabOptions& options);

    /// Starts a daemon anew and plays the sequence.
    Verdict play(const Sequence& sequence);
    /// How long something that must happen may take.
    std::chrono::milliseconds timeout{15000};

private:
    void begin(const Sequence& sequence);
    void change(const Step& step);
    void run(const Step& step);
    void callMethod(const Step& step);
    void endDaemon();
    void restart(bool powerLoss);
    void write(const std::string& package, const std::string& text);
    void settle();
    bool settled();
    bool saveIsLate(int64_t armedNs) const;
    void awaitSave();
    bool awaitTour();
    void compareFile();
    int threads() const;
    void learnThreads();

    Lab& lab_;
    Evidence evidence_;
    HeadModel model_;
    int resident_ = 0; // threads of a daemon at rest
};
