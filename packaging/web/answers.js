// The daemon's answers taken apart. Their frame is fixed and the data in them is not escaped, so the data is what
// stands between the known parts of the frame: an SMS with quotation marks makes an answer that is no JSON.

const text = (name) => ({ name, open: `"${name}":"`, close: '"' });

const FRAMES = {
  51: ["TYPE", "IMEI", "CSQ", "SYSCFG", "SYSCFGEX", "COPS", "CREG", "CARDLOCK", "SYSINFO", "SYSINFOEX", "CGPADDR",
    "CGEQNEG", "SMSCOUNT", "UPDATED"].map(text),
  53: ["GGA", "GSA", "RMC", "VTG", "GSV"].map(text),
  54: [{ name: "Timestamp", open: '"Timestamp":', close: "", number: true }, text("From"), text("Text")],
};

const frameHead = (protocol) => `{"r":${protocol},"s":1,"d":{`;

// What the daemon's print makes of an answer, which is its own format: "%%" becomes "%", the first "%s" all of it.
function printed(format) {
  let used = false;
  return format.replace(/%[%s]/g, (conversion) => {
    if (conversion === "%%") return "%";
    if (used) return conversion;
    used = true;
    return format;
  });
}

// The original then stands in the result, and is the part that gives the result.
function undoPrint(result, head) {
  const begin = result.indexOf(head, 1);
  if (begin === -1) return result;
  for (let end = result.indexOf("}}", begin); end !== -1; end = result.indexOf("}}", end + 1)) {
    for (const tail of [3, 2]) {
      const original = result.slice(begin, end + tail);
      if (printed(original) === result) return original;
    }
  }
  return result;
}

// A value ends where the frame goes on for the first time, the last one at the end.
function readFrame(members, head, answer) {
  let rest = answer.replace(/\n+$/, "");
  if (!rest.startsWith(head + members[0].open)) return null;
  rest = rest.slice(head.length + members[0].open.length);
  const data = {};
  for (const [i, member] of members.entries()) {
    const next = members[i + 1];
    const end = member.close + (next ? `,${next.open}` : "}}");
    const at = next ? rest.indexOf(end) : rest.length - end.length;
    if (at < 0 || !rest.startsWith(end, at)) return null;
    data[member.name] = rest.slice(0, at);
    if (member.number) {
      if (!/^\d{1,15}$/.test(data[member.name])) return null;
      data[member.name] = Number(data[member.name]);
    }
    rest = rest.slice(at + end.length);
  }
  return data;
}

// The answer as {granted, data}, or {granted, reason} of one that was refused. Throws when it is not understood.
export function readAnswer(protocol, answer) {
  const members = FRAMES[protocol];
  if (members) {
    const head = frameHead(protocol);
    const data = readFrame(members, head, undoPrint(answer, head));
    if (data) return { granted: true, data };
  }
  const { r = protocol, s, err = "" } = JSON.parse(answer) ?? {};
  const known = r === protocol && (s === 0 || (s === 1 && (!members || protocol === 52)));
  if (!known) throw new Error("an answer that is not understood");
  return s === 1 ? { granted: true, data: {} } : { granted: false, reason: String(err) };
}

// ---- GPS

function angle(field, side, digits) {
  if (!/^\d+(\.\d+)?$/.test(field ?? "") || field.length < digits + 2 || !/^[NSEW]$/.test(side ?? "")) return null;
  const minutes = field.slice(digits);
  const degrees = Number(field.slice(0, digits)) + Number(minutes) / 60;
  return { shown: `${field.slice(0, digits)}°\u00a0${minutes}′\u00a0${side}`,
    degrees: side === "S" || side === "W" ? -degrees : degrees };
}

function moment(time, date) {
  const [, hour, minute, second] = /^(\d\d)(\d\d)(\d\d)/.exec(time ?? "") ?? [];
  const [, day, month, year] = /^(\d\d)(\d\d)(\d\d)$/.exec(date ?? "") ?? [];
  if (!hour || !day) return null;
  return new Date(Date.UTC(2000 + Number(year), month - 1, day, hour, minute, second));
}

const number = (field) => (/^\d+(\.\d+)?$/.test(field ?? "") ? Number(field) : null);

// The position and what belongs to it, of the data of protocol 53; null where the sentences have nothing.
export function readGps(data) {
  const rmc = data.RMC.split(",");  // time, status, latitude, N, longitude, E, knots, course, date
  const gga = data.GGA.split(",");  // time, four of the position, quality, satellites, -, altitude
  const vtg = data.VTG.split(",");  // course, T, -, M, knots, N, km/h
  const north = angle(rmc[2], rmc[3], 2);
  const east = angle(rmc[4], rmc[5], 3);
  return {
    fix: rmc[1] === "A" && north && east ? { north, east } : null,
    kilometres: number(vtg[6]),
    knots: number(rmc[6]),
    altitude: number(gga[8]),
    used: number(gga[6]),
    seen: number(data.GSV.split(",")[0]),
    time: moment(rmc[0], rmc[8]),
  };
}
