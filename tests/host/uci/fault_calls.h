// Stand-ins for the file calls that change something, so that a test can let one of them fail or let the process die in
// it. Calls of every source and library of the test's program go through them.
#pragma once

enum class Fault {
    None,
    Fail, // the call fails; of a write, half is done
    Die   // the process ends in the call, as with kill -9; of a write, half is done
};

// Lets the nth call from now on (from 1) meet the fault; the others do what they always do.
void plan(Fault fault, int nth);

// Ends the plan; true when its call came.
bool planMet();
