// The rack's status thread: keeps every reader's card state and ATR from
// the frames that land in its incoming mailbox.
#pragma once

class Rack;
class Reader;

// The thread's body: polls the rack's readers until the rack stops.
void runStatusWorker(Rack& rack);

// One pass over the rack's readers: takes each new frame in an incoming
// mailbox and acts on it.
void takeNewStatuses(Rack& rack);

// Takes the frame in the reader's incoming mailbox and acts on it.
void takeReaderStatus(Rack& rack, Reader& reader);
