// What the modem is set to and what it is asked for before its first message (3GPP TS 27.007, TS 27.005). SMS
// thread only.
#pragma once

// Initialises the modem: PIN, unsolicited reports off, text mode, service centre. Returns how many of the
// last three were acknowledged; above 1 is a success. Takes up to 15 s.
int nastavModem();

// Asks for the model and returns its type code, 0 for an unknown one. Not part of the start-up.
int getModemType();
