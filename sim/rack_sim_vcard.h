/*
 * Control surface of the rack emulator, continued: slots given over to
 * virtual cards.
 *
 * A virtual card is card software outside the emulator (vsmartcard's vicc,
 * a Java Card applet in jCardSim's VSmartCard connector) that speaks the
 * virtual smart card protocol of vsmartcard's vpcd over TCP: a 2-byte
 * big-endian length and that many bytes per message. The slot is the
 * reader side of that protocol:
 *
 *  - a card that connects is inserted: the slot powers it on (0x01), asks
 *    for its ATR (0x04) and reports the card with that ATR to the host in a
 *    status frame, as a real insertion does; a card that disconnects is
 *    removed (a status 1 frame);
 *  - the host's 0x40 commands go to the card, and its response APDU comes
 *    back as the answer frame (the extended form from 256 bytes on), after
 *    the acknowledge, under the same wire pacing and latency timer as the
 *    emulator's own cards;
 *  - a protocol selection (0x20, 0x60) resets the card (0x02); a reset of
 *    the rack's master drops the answers still owed and powers the card
 *    down and up (0x00, 0x01); the card is powered down before the
 *    emulator lets it go;
 *  - a card that breaks the protocol (an ATR of 0 or more than 32 bytes,
 *    an answer without a status word or of more than 4,096 bytes, a message
 *    it was not asked for) or stays silent past the time-out becomes a mute
 *    card until it disconnects; a command it still owed an answer gets an
 *    answer frame of status 3 without data. A card that disconnects with
 *    answers owed (in the middle of an answer, say) gets status 1 frames
 *    for them instead.
 *
 * Only the loopback address 127.0.0.1 is used, in both directions. The
 * slot must be populated (rackSimAddSlots) for the host to see it. Slot
 * faults and responders apply to the emulator's own cards only.
 *
 * The sockets are served by one thread of the emulator, which runs while
 * any slot has a virtual card and is joined by rackSimReset and when the
 * emulator is unloaded. Virtual cards need the Linux emulator (libftd2xx.so);
 * the stand-in FTD2XX.dll refuses them.
 */
#ifndef TESSEL_RACK_SIM_VCARD_H
#define TESSEL_RACK_SIM_VCARD_H

#include "sim/rack_sim.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Gives the slot over to a virtual card. `connectToCard` 0: the emulator
 * listens on 127.0.0.1:`port` (0: a free port, which is returned) and takes
 * one card at a time; 1: it connects to a card listening there, and tries
 * again every half second while none is there or after one has gone. The
 * slot's own card, if any, is taken out. Returns the port, or -1 (no such
 * device or slot, the port cannot be had, or no virtual cards on this
 * build), with the reason on standard error. A slot given over again first
 * lets its old card go. */
RACKSIM_API int RACKSIM_CALL rackSimAttachVirtualCard(int device, int address, int port, int connectToCard);

/* Lets the slot's virtual card go (powered down, disconnected); the slot is
 * then empty and its own responders answer again. */
RACKSIM_API void RACKSIM_CALL rackSimDetachVirtualCard(int device, int address);

/* How long a virtual card may take over its ATR or an answer before it is
 * taken for mute; default 30,000 ms, at least 1. For waits that start
 * after the call; rackSimReset restores the default. */
RACKSIM_API void RACKSIM_CALL rackSimSetVirtualCardTimeoutMs(unsigned milliseconds);

#ifdef __cplusplus
}
#endif

#endif /* TESSEL_RACK_SIM_VCARD_H */
