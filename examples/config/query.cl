unit = { name, location },
ports = { fc1 = { alias, speed.negotiated }, fc3 = { alias, counters.crc_errors } },
saved.by,
not_there
