// How many SMS a text is: in the GSM 7-bit default alphabet, whose extension takes two places a character, or in
// UCS-2 as soon as one character is in neither (3GPP TS 23.038).

const BASIC = new Set("@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?" +
  "¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà");
const EXTENSION = new Set("^{}\\[~]|€\f");

const GSM = { single: 160, part: 153 };
const UNICODE = { single: 70, part: 67 };

// The parts of a long message: what takes two places is not divided.
function countParts(places, room) {
  let parts = 1;
  let used = 0;
  for (const width of places) {
    if (used + width > room) {
      parts += 1;
      used = 0;
    }
    used += width;
  }
  return parts;
}

// {used, room, count, unicode}: places that are used, that there are in so many SMS, and the first character that
// makes it UCS-2, if any.
export function smsLength(text) {
  const characters = [...text];
  const unicode = characters.find((c) => !BASIC.has(c) && !EXTENSION.has(c));
  const limits = unicode === undefined ? GSM : UNICODE;
  const places = characters.map((c) => (unicode === undefined ? (EXTENSION.has(c) ? 2 : 1) : c.length));
  const used = places.reduce((sum, width) => sum + width, 0);
  const count = used <= limits.single ? 1 : countParts(places, limits.part);
  return { used, room: count === 1 ? limits.single : count * limits.part, count, unicode };
}
