/*
 * Control surface of the rack emulator.
 *
 * The emulator is the rack hardware seen from the host's side of the USB
 * cable: a list of FTDI devices, each a rack with a master at address 0 and
 * card slots at 1 to 240, speaking the rack's framed serial protocol byte
 * for byte. The host reaches it through the D2XX functions (FT_OpenEx,
 * FT_Read, FT_Write, ...); tests, tools and benchmarks configure it, inject
 * faults and read what the host wrote through the plain C functions below.
 *
 * All functions are safe to call from any thread, also while the host is
 * using the devices. Device indexes count from 0 in list order; addresses
 * are slot addresses 1..240. Functions given a device index or an address
 * that does not exist do nothing and return -1 where they return a value.
 */
#ifndef TESSEL_RACK_SIM_H
#define TESSEL_RACK_SIM_H

#ifdef _WIN32
#ifdef RACKSIM_BUILDING
#define RACKSIM_API __declspec(dllexport)
#else
#define RACKSIM_API
#endif
#define RACKSIM_CALL __cdecl
#else
#define RACKSIM_API __attribute__((visibility("default")))
#define RACKSIM_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Devices ---------------------------------------------------------- */

/* Removes every device, with its slots, faults, wire log and counters. */
RACKSIM_API void RACKSIM_CALL rackSimReset(void);

/* Appends a device to the device list; returns its index. A rack has the
 * description "Smart Card Rack"; any other text makes a device that the
 * library must pass over. */
RACKSIM_API int RACKSIM_CALL rackSimAddDevice(const char* description, const char* serial);

/* While set, FT_OpenEx of this device fails with FT_DEVICE_NOT_OPENED, as
 * when another process holds it. */
RACKSIM_API void RACKSIM_CALL rackSimSetOpenFails(int device, int fails);

/* 1 while the host holds the device open. */
RACKSIM_API int RACKSIM_CALL rackSimIsOpen(int device);

/* Replaces every device with the racks that `text` describes, in the form
 * of the TESSEL_SIM variable: "racks=2,slots=8,cards=3,mute=1,echo=1" and
 * "atr=HEX", each optional (racks TR0001, TR0002, ... with slots 1..slots
 * populated, cards in slots 1..cards, mute cards after them). Timed events
 * on the bus, any number of each: "unplug=TR0001@5000+3000" (unplugged 5 s
 * after set-up, back 3 s later; without "+ms" it stays away),
 * "plug=TR0002@4000" (absent at first, plugged in 4 s after set-up) and
 * "powercycle=TR0001@6000". Returns the
 * number of racks; for bad text, writes why to standard error, leaves no
 * devices and returns -1. When the emulator is loaded as the D2XX library
 * with TESSEL_SIM set, it does this with that text before any other call. */
RACKSIM_API int RACKSIM_CALL rackSimSetUp(const char* text);

/* ---- The USB bus and the rack's power ---------------------------------- */

/* Pulls the device's cable: it leaves the device list and cannot be opened.
 * D2XX calls on a handle the host still holds fail with FT_IO_ERROR, and
 * with FT_DEVICE_NOT_FOUND once the host has made a new device list
 * (FT_CreateDeviceInfoList); FT_Close frees such a handle. The rack behind
 * keeps its slots and cards but forgets what was on the line. A device
 * unplugged right after rackSimAddDevice is one plugged in later. */
RACKSIM_API void RACKSIM_CALL rackSimUnplug(int device);

/* Puts the device back on the bus (or on it for the first time): it is in
 * the next device list and opens again. Handles from before stay failed. */
RACKSIM_API void RACKSIM_CALL rackSimPlug(int device);

/* The rack loses power for a moment while its USB side stays up: whatever
 * was on the line or in the rack's work is lost, and the master, once up,
 * sends its slot map on its own (and again whenever asked). Does nothing
 * while the device is not open. */
RACKSIM_API void RACKSIM_CALL rackSimPowerCycle(int device);

/* 1 while the device is on the bus, 0 while unplugged. */
RACKSIM_API int RACKSIM_CALL rackSimIsPlugged(int device);

/* ---- Slots and cards -------------------------------------------------- */

/* Sets the raw slot-map byte that the master reports for an address (low
 * four bits 1, 2 or 3: a populated slot; anything else: empty). A slot
 * whose byte is populated answers frames; others stay silent. */
RACKSIM_API void RACKSIM_CALL rackSimSetSlotMapByte(int device, int address, unsigned char mapByte);

/* Whether the slot answers frames, whatever its map byte says: 1 it
 * answers, 0 it stays silent, -1 (the default) as the map byte says. The
 * map byte itself is reported unchanged. */
RACKSIM_API void RACKSIM_CALL rackSimSetSlotAnswers(int device, int address, int answers);

/* Populates `count` slots from `firstAddress` on (map byte 0x01), empty. */
RACKSIM_API void RACKSIM_CALL rackSimAddSlots(int device, int firstAddress, int count);

/* Puts a card with this ATR (1..64 bytes) in the slot. While the device is
 * open, the slot sends an unsolicited status frame (status 5 with the ATR). */
RACKSIM_API void RACKSIM_CALL rackSimInsertCard(int device, int address, const unsigned char* atr, int atrLength);

/* Takes the card out; while open, sends an unsolicited status 1 frame. */
RACKSIM_API void RACKSIM_CALL rackSimRemoveCard(int device, int address);

/* Makes the card mute (present, no ATR); while open, sends status 3. */
RACKSIM_API void RACKSIM_CALL rackSimMuteCard(int device, int address);

/* ---- What a card answers to 0x40 commands ------------------------------ */

/* Default responder of a new card: every command answers 90 00. */
/* Echo: the answer is the command APDU itself. */
RACKSIM_API void RACKSIM_CALL rackSimSetEcho(int device, int address);

/* Every command gets this answer (0..4096 bytes; 256 or more go out in the
 * extended frame form). */
RACKSIM_API void RACKSIM_CALL rackSimSetFixedAnswer(int device, int address, const unsigned char* answer, int length);

/* Table mode: a command equal to `command` gets `answer`; a command not in
 * the table gets 6D 00. The first call switches the slot to table mode. */
RACKSIM_API void RACKSIM_CALL rackSimAddTableEntry(int device, int address, const unsigned char* command,
                                                   int commandLength, const unsigned char* answer, int answerLength);

/* The card's work time per command, in milliseconds of real time, between
 * the acknowledge and the answer. */
RACKSIM_API void RACKSIM_CALL rackSimSetCardDelayMs(int device, int address, unsigned milliseconds);

/* Status byte of answer frames to 0x40 commands (default 0x04, a status
 * without events). */
RACKSIM_API void RACKSIM_CALL rackSimSetAnswerStatus(int device, int address, unsigned char statusByte);

/* ---- Faults ------------------------------------------------------------- */

enum RackSimSlotFault {
    RACKSIM_SLOT_OK = 0,
    RACKSIM_NO_ACK = 1,          /* the slot stays silent: no acknowledge, no answer */
    RACKSIM_ACK_LOST = 2,        /* no acknowledge, but the answer is sent */
    RACKSIM_NO_ANSWER = 3,       /* acknowledge, then nothing */
    RACKSIM_EMPTY_ANSWER = 4,    /* acknowledge, then an answer frame without data */
    RACKSIM_GARBAGE = 5,         /* bytes that are no frame go on the line before the answer */
    RACKSIM_TRUNCATED = 6,       /* the answer frame loses its last bytes */
    RACKSIM_BAD_CHECKSUM = 7,    /* the answer frame carries a wrong checksum */
    RACKSIM_OVERSIZED = 8        /* the answer is an extended frame of 1,600 data bytes */
};

/* Applies a fault to the next `frames` frames that the host sends to the
 * slot (-1: until cleared with RACKSIM_SLOT_OK). */
RACKSIM_API void RACKSIM_CALL rackSimSetSlotFault(int device, int address, int fault, int frames);

enum RackSimDeviceFault {
    RACKSIM_BYTE_AT_A_TIME = 1,  /* the queue reports and delivers one byte per poll */
    RACKSIM_COALESCE = 2,        /* frames to the host are held back and delivered several in one read */
    RACKSIM_WRITE_FAILS = 3,     /* FT_Write fails with FT_IO_ERROR and takes nothing */
    RACKSIM_MASTER_SILENT_ENUMERATE = 4, /* the master never answers the enumerate frame */
    RACKSIM_MASTER_SILENT_COLLECTED = 5  /* the master never answers the status-collected frame */
};

RACKSIM_API void RACKSIM_CALL rackSimSetDeviceFault(int device, int fault, int on);

/* Puts raw bytes on the line towards the host, as if the rack had sent
 * them: the way to deliver arbitrary, broken or unsolicited frames. */
RACKSIM_API void RACKSIM_CALL rackSimInjectBytes(int device, const unsigned char* bytes, int length);

/* ---- Wire realism ------------------------------------------------------- */

/* On: bytes travel at 115,200 baud 8N1 (11,520 bytes/s) in each direction,
 * and bytes to the host are held by the FTDI latency timer (up to 16 ms
 * unless a 62-byte packet fills). Off (the default): bytes pass at once. */
RACKSIM_API void RACKSIM_CALL rackSimSetWireRealism(int device, int on);

/* The FTDI latency timer as the device driver holds it, 1 to 255 ms
 * (default 16), for this open and every later one. A card farm that tunes
 * its driver to a short timer gets short replies sooner. FT_SetLatencyTimer
 * sets it for the present open only. */
RACKSIM_API void RACKSIM_CALL rackSimSetLatencyTimerMs(int device, unsigned milliseconds);

/* The latency timer in force, in milliseconds: the driver's, or what the
 * host set with FT_SetLatencyTimer since it opened the device. -1 for an
 * unknown device. */
RACKSIM_API int RACKSIM_CALL rackSimLatencyTimerMs(int device);

/* While set, FT_SetLatencyTimer on this device fails with FT_OTHER_ERROR
 * and leaves the driver's timer, as a driver without the call does. */
RACKSIM_API void RACKSIM_CALL rackSimRefuseLatencyTimer(int device, int refuse);

/* ---- Observation -------------------------------------------------------- */

/* The line settings the host made since it opened the device: the rate of
 * FT_SetBaudRate and the word length, stop bits and parity of
 * FT_SetDataCharacteristics; 0 for what it has not set. Returns 0, or -1
 * for an unknown device. Null pointers are allowed. */
RACKSIM_API int RACKSIM_CALL rackSimLineSettings(int device, unsigned* baudRate, int* wordLength, int* stopBits,
                                                 int* parity);

/* The wire log: every FT_Write the host made to the device, in order, with
 * its time in microseconds since the device was added. */
RACKSIM_API int RACKSIM_CALL rackSimWireLogCount(int device);

/* Copies entry `index` into `buffer` (at most `capacity` bytes) and
 * returns its full length; -1 if there is no such entry. */
RACKSIM_API int RACKSIM_CALL rackSimWireLogEntry(int device, int index, unsigned char* buffer, int capacity,
                                                 long long* microseconds);

/* Forgets the wire log and zeroes the counters of a device. */
RACKSIM_API void RACKSIM_CALL rackSimClearWireLog(int device);

enum RackSimCounter {
    RACKSIM_FRAMES_FROM_HOST = 0,  /* whole frames the host wrote */
    RACKSIM_FRAMES_TO_HOST = 1,    /* whole frames the rack put on the line */
    RACKSIM_BYTES_FROM_HOST = 2,
    RACKSIM_BYTES_TO_HOST = 3,     /* bytes the host has taken with FT_Read */
    RACKSIM_OPENS = 4,
    RACKSIM_WRITE_FAILURES = 5,
    /* frames the host sent to a slot while another slot's frame had not yet
       been answered by an acknowledge or a reply that reached the host: a
       breach of the one-message-at-a-time rule of the bus */
    RACKSIM_BUS_VIOLATIONS = 6,
    RACKSIM_COMMANDS_ANSWERED = 7, /* 0x40 commands answered by a card */
    RACKSIM_BAD_FRAMES_FROM_HOST = 8, /* frames from the host with a wrong checksum, ignored */
    /* signals of the host's receive event (FT_SetEventNotification with
       FT_EVENT_RXCHAR): one each time bytes become readable that the last
       signal did not tell of */
    RACKSIM_EVENTS_SIGNALLED = 9
};

RACKSIM_API long long RACKSIM_CALL rackSimCounter(int device, int counter);

/* Processor time in microseconds that the emulator's own thread (the one
   that signals hosts' receive events, as a device driver does on a real
   machine) has used since the emulator loaded. Benchmarks take it off the
   process's time, so that the figure is the library's. */
RACKSIM_API long long RACKSIM_CALL rackSimOwnCpuUs(void);

#ifdef __cplusplus
}
#endif

#endif /* TESSEL_RACK_SIM_H */
