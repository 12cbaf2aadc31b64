unit.name = "bridge-07",
unit.location = "Rack 12, slot \"upper left\"",
unit.model = "FCB-4/2",
unit.serial = "FCB42-0070193",
unit.contact.mail = "storage@bridge.example",
unit.contact.phone = "+49 30 5550 117",
unit.contact.note = "Call before a restart:
the tape library on maps 1 to 4 backs up from 22:00 to 04:00.
Outside these hours a mail is enough.",
unit.standby,

firmware = {
    version = "4.12.0",
    build = 0x0004120007,
    image = "C:\\firmware\\fcb42.img",
    checksum = 0xE3069283,
    channels = {
        active = "A",
        A = { version = "4.12.0", valid = true, written = 1763301600 },
        B = { version = "4.11.3", valid = true, written = 1747663200 }
    },
    rollback_to
},

network = {
    hostname = "bridge-07",
    management = {
        interface = "eth0",
        mac = "02:00:5E:10:00:07",
        dhcp = false,
        address = "192.0.2.17",
        prefix = 24,
        gateway = "192.0.2.1",
        mtu = 1500,
        vlan
    },
    service = {
        interface = "eth1",
        mac = "02:00:5E:10:00:08",
        dhcp = true,
        address, prefix, gateway,
        mtu = 9000,
        vlan = 112
    },
    dns = ["192.0.2.53", "198.51.100.53"],
    ntp = { servers = ["ntp1.bridge.example", "ntp2.bridge.example"], enabled = true, drift_ppb = 1873 },
    syslog = { host = "198.51.100.9", port = 514, level = 5 },
    snmp = {
        enabled = true, port = 161,
        trap_sinks = [
            { address = "198.51.100.20", port = 162, community = "bridge-traps" },
            { address = "198.51.100.21", port = 162, community = "bridge-traps" }
        ]
    },
    allowed = [[192, 0, 2, 0, 24], [198, 51, 100, 0, 24]]
},

ports = {
    fc1 = {
        number = 1, kind = "fc", enabled = true,
        wwnn = 0x200000005EA0F701, wwpn = 0x210000005EA0F701,
        alias = "host side A",
        topology = "point-to-point",
        speed = { configured = "auto", negotiated = 4, supported = [1, 2, 4] },
        fabric = { login = true, fcid = 0x010A00, bb_credit = 16, timeout_ms = { ed_tov = 2000,
            ra_tov = 10000 } },
        counters = { frames_in = 18446744073709551615, frames_out = 92233720368547758, crc_errors = 0,
            link_failures = 3 }
    },
    fc2 = {
        number = 2, kind = "fc", enabled = true,
        wwnn = 0x200000005EA0F701, wwpn = 0x210100005EA0F701,
        alias = "host side B",
        topology = "point-to-point",
        speed = { configured = "auto", negotiated = 4, supported = [1, 2, 4] },
        fabric = { login = true, fcid = 0x010B00, bb_credit = 16, timeout_ms = { ed_tov = 2000,
            ra_tov = 10000 } },
        counters = { frames_in = 7290114402, frames_out = 6120094411, crc_errors = 12, link_failures = 1 }
    },
    fc3 = {
        number = 3, kind = "fc", enabled = true,
        wwnn = 0x200000005EA0F702, wwpn = 0x210000005EA0F702,
        alias = "remote site, 10 km",
        topology = "fabric",
        speed = { configured = 2, negotiated = 2, supported = [1, 2, 4] },
        fabric = { login = true, fcid = 0x021300, bb_credit = 64, timeout_ms = { ed_tov = 2000,
            ra_tov = 10000 } },
        counters = { frames_in = 88120031, frames_out = 90412256, crc_errors = 407, link_failures = 19 }
    },
    fc4 = {
        number = 4, kind = "fc", enabled = false,
        wwnn = 0x200000005EA0F702, wwpn = 0x210100005EA0F702,
        alias,
        topology = "loop",
        speed = { configured = "auto", negotiated, supported = [1, 2, 4] },
        fabric = { login = false, fcid, bb_credit = 0, timeout_ms = {} },
        counters = {}
    },
    scsi1 = {
        number = 5, kind = "scsi", enabled = true,
        alias = "tape bus",
        initiator_id = 7, width = 16, sync_MHz = 160, termination = true,
        resets = 0007, last_reset = 1763412345
    },
    scsi2 = {
        number = 6, kind = "scsi", enabled = true,
        alias = "disk shelf \"B\"",
        initiator_id = 7, width = 16, sync_MHz = 160, termination = false,
        resets = 0, last_reset
    }
},

transceivers = [
    {
        port = 1, present = true, temperature_mC = 38250, rx_power_uW = [512, 511, 513, 510],
        alarms = [],
        sfp_data = [
            {Id="sfp_vendor_name", Name="Vendor name", Value="EXAMPLE OPTICS  "},
            {Id="sfp_vendor_pn", Name="Part number", Value="EO-4G-SR-850    "},
            {Id="sfp_vendor_sn", Name="Serial number", Value="EO0712A00431    "},
            {Id="sfp_vendor_rev", Name="Revision", Value="1.2 "},
            {Id="sfp_id", Name="Identifier", Value="SFP transceiver"},
            {Id="sfp_connector", Name="Connector", Value="LC"},
            {Id="sfp_fc_rscc", Name="RSCC", Value="Reserved"},
            {Id="sfp_fc_sonet", Name="SONET", Value="Reserved"},
            {Id="sfp_fc_gecc", Name="GECC", Value="Reserved"},
            {Id="sfp_fc_link_len", Name="Link length", Value="short distance (S)"},
            {Id="sfp_fc_tx", Name="Transmitter", Value="Shortwave laser w/o OFC (SN)"},
            {Id="sfp_encoding", Name="Encoding", Value="8B10B"},
            {Id="sfp_option", Name="Option", Value="TX_DISABLE, TX_FAULT, Rx_LOS"},
            {Id="sfp_fc_trans", Name="Transmission media", Value="Multi-mode, 50m & 62.5m (M5 & M6)"},
            {Id="sfp_fc_speed", Name="Supported speeds", Value="1/2/4 Gbit/Sec"}
        ]
    },
    {
        port = 2, present = true, temperature_mC = 39000, rx_power_uW = [507, 507, 505, 506],
        alarms = [],
        sfp_data = [
            {Id="sfp_vendor_name", Name="Vendor name", Value="EXAMPLE OPTICS  "},
            {Id="sfp_vendor_pn", Name="Part number", Value="EO-4G-SR-850    "},
            {Id="sfp_vendor_sn", Name="Serial number", Value="EO0712A00432    "},
            {Id="sfp_vendor_rev", Name="Revision", Value="1.2 "},
            {Id="sfp_id", Name="Identifier", Value="SFP transceiver"},
            {Id="sfp_connector", Name="Connector", Value="LC"},
            {Id="sfp_fc_rscc", Name="RSCC", Value="Reserved"},
            {Id="sfp_fc_sonet", Name="SONET", Value="Reserved"},
            {Id="sfp_fc_gecc", Name="GECC", Value="Reserved"},
            {Id="sfp_fc_link_len", Name="Link length", Value="short distance (S)"},
            {Id="sfp_fc_tx", Name="Transmitter", Value="Shortwave laser w/o OFC (SN)"},
            {Id="sfp_encoding", Name="Encoding", Value="8B10B"},
            {Id="sfp_option", Name="Option", Value="TX_DISABLE, TX_FAULT, Rx_LOS"},
            {Id="sfp_fc_trans", Name="Transmission media", Value="Multi-mode, 50m & 62.5m (M5 & M6)"},
            {Id="sfp_fc_speed", Name="Supported speeds", Value="1/2/4 Gbit/Sec"}
        ]
    },
    {
        port = 3, present = true, temperature_mC = 41125, rx_power_uW = [601, 598, 600, 603],
        alarms = ["rx power high", "temperature\\humidity sensor"],
        sfp_data = [
            {Id="sfp_vendor_name", Name="Vendor name", Value="LONG HAUL INC   "},
            {Id="sfp_vendor_pn", Name="Part number", Value="LH-4G-LR-1310   "},
            {Id="sfp_vendor_sn", Name="Serial number", Value="LH60019934      "},
            {Id="sfp_vendor_rev", Name="Revision", Value="A   "},
            {Id="sfp_id", Name="Identifier", Value="SFP transceiver"},
            {Id="sfp_connector", Name="Connector", Value="LC"},
            {Id="sfp_fc_rscc", Name="RSCC", Value="Reserved"},
            {Id="sfp_fc_sonet", Name="SONET", Value="Reserved"},
            {Id="sfp_fc_gecc", Name="GECC", Value="Reserved"},
            {Id="sfp_fc_link_len", Name="Link length", Value="long distance (L)"},
            {Id="sfp_fc_tx", Name="Transmitter", Value="Longwave laser (LC)"},
            {Id="sfp_encoding", Name="Encoding", Value="8B10B"},
            {Id="sfp_option", Name="Option", Value="RATE_SELECT, TX_DISABLE, TX_FAULT, Rx_LOS"},
            {Id="sfp_fc_trans", Name="Transmission media", Value="Single Mode (SM)"},
            {Id="sfp_fc_speed", Name="Supported speeds", Value="1/2/4 Gbit/Sec"}
        ]
    },
    {
        port = 4, present = false, temperature_mC, rx_power_uW = [], alarms = [], sfp_data = []
    }
],

maps = {
    m1 = {
        host = { port = "fc1", wwpn = 0x100000005EA1B2C3, lun = 0 },
        target = { port = "scsi1", id = 0, lun = 0 },
        device = { type = "sequential access", vendor = "EXAMPLE ", product = "ULTRA-TAPE 4    ",
            revision = "B3F1" },
        access = "exclusive", online = true
    },
    m2 = {
        host = { port = "fc1", wwpn = 0x100000005EA1B2C3, lun = 1 },
        target = { port = "scsi1", id = 1, lun = 0 },
        device = { type = "sequential access", vendor = "EXAMPLE ", product = "ULTRA-TAPE 4    ",
            revision = "B3F1" },
        access = "exclusive", online = true
    },
    m3 = {
        host = { port = "fc2", wwpn = 0x100000005EA1B2C4, lun = 0 },
        target = { port = "scsi1", id = 2, lun = 0 },
        device = { type = "sequential access", vendor = "EXAMPLE ", product = "ULTRA-TAPE 4    ",
            revision = "A9C0" },
        access = "exclusive", online = false
    },
    m4 = {
        host = { port = "fc2", wwpn = 0x100000005EA1B2C4, lun = 1 },
        target = { port = "scsi1", id = 6, lun = 0 },
        device = { type = "medium changer", vendor = "EXAMPLE ", product = "LIBRARY 24      ",
            revision = "1.07" },
        access = "shared", online = true
    },
    m10 = {
        host = { port = "fc3", wwpn, lun = 0 },
        target = { port = "scsi2", id = 8, lun = 0 },
        device = { type = "direct access", vendor = "EXAMPLE ", product = "DISK 300G 15K   ",
            revision = "D011" },
        access = "shared", online = true
    },
    m11 = {
        host = { port = "fc3", wwpn, lun = 1 },
        target = { port = "scsi2", id = 9, lun = 0 },
        device = { type = "direct access", vendor = "EXAMPLE ", product = "DISK 300G 15K   ",
            revision = "D011" },
        access = "shared", online = true
    }
},
maps.m10.cache = { read_ahead = 128, write_back = false },
maps.m11.cache.read_ahead = 128,
maps.m11.cache.write_back = true,

users = [
    {
        name = "admin", full_name = "Administrator", role = "administrator", enabled = true,
        password = "{SSHA}Zm9vYmFyYmF6cXV4MDEyMzQ1Njc4OWFiY2Q=",
        last_login = { time = 1763704800, from = "192.0.2.88" },
        keys = ["ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIExample admin@desk"]
    },
    {
        name = "operator", full_name = "Jürgen Müller", role = "operator", enabled = true,
        password = "{SSHA}c2FsdHlzYWx0eXNhbHR5c2FsdHlzYWx0eTEyMzQ=",
        last_login = { time = 1763618400, from = "192.0.2.90" },
        keys = []
    },
    {
        name = "backup", full_name = "Backup \"robot\"", role = "monitor", enabled = true,
        password,
        last_login,
        keys = [
            "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIExample robot@backup1",
            "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIExample robot@backup2"
        ]
    },
    {
        name = "service", full_name = "Field service", role = "service", enabled = false,
        password, last_login = { time = 1700000000, from = "serial console" }, keys = []
    }
],

roles = {
    administrator = { read = true, write = true, firmware = true, users = true },
    operator = { read = true, write = true, firmware = false, users = false },
    monitor = { read = true, write = false, firmware = false, users = false },
    service = { read = true, write = true, firmware = true, users = false }
},

log = {
    levels = { system = 5, fc = 4, scsi = 4, corelink = 3, web = 6 },
    keep = { days = 90, megabytes = 64 },
    telnet_feed = { enabled = false, port = 2323 },
    pattern = "\d+-\w+: *"
},

alerts = {
    mail = {
        enabled = true, server = "mail.bridge.example", port = 587, from = "bridge-07@bridge.example",
        to = ["storage@bridge.example", "night-shift@bridge.example"],
        template = "Unit \"%u\" reports:

    %e

Level: %l
See C:\\reports\\%d\\%t.txt for details.
"
    },
    thresholds = {
        temperature_C = { warning = 55, critical = 70 },
        fan_rpm = { warning = 3200, critical = 2400 },
        crc_errors_per_hour = { warning = 10, critical = 1000 }
    }
},

sensors = {
    temperatures = [
        { place = "inlet", celsius = 24 },
        { place = "processor", celsius = 51 },
        { place = "exhaust", celsius = 38 }
    ],
    fans = [{ place = "left", rpm = 4170 }, { place = "right", rpm = 4205 }],
    supplies = [
        { place = "A", present = true, watts = 61, state = "ok" },
        { place = "B", present = false, watts = 0, state = "absent" }
    ],
    battery = { percent = 97, charging = false, replaced = 1718000000, fault }
},

events = [
    { number = 40117, time = 1763701200, level = 6, source = "fc1", code = 0x1001,
      text = "Link up, 4 Gbit/Sec" },
    { number = 40118, time = 1763701203, level = 6, source = "fc2", code = 0x1001,
      text = "Link up, 4 Gbit/Sec" },
    { number = 40119, time = 1763701260, level = 4, source = "fc3", code = 0x1014,
      text = "CRC errors above the warning threshold: 407 since \"clear\"" },
    { number = 40120, time = 1763702002, level = 5, source = "web", code = 0x4002,
      text = "User admin logged in from 192.0.2.88" },
    { number = 40121, time = 1763702100, level = 5, source = "config", code = 0x4100,
      text = "Configuration changed:
  network.syslog.level 4 -> 5
  alerts.mail.enabled false -> true" },
    { number = 40122, time = 1763703444, level = 3, source = "scsi1", code = 0x2003,
      sense = { key = 0x04, asc = 0x15, ascq = 0x01, data = [0x70, 0, 0x04, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0,
          0x15, 0x01] },
      text = "id 2 lun 0: HARDWARE ERROR, mechanical positioning error" },
    { number = 40123, time = 1763703445, level = 4, source = "maps", code = 0x3001,
      text = "Map m3 offline" },
    { number = 40124, time = 1763704800, level = 5, source = "web", code = 0x4002,
      text = "User admin logged in from 192.0.2.88" }
],

gui = { port = 8008, theme = "dark", refresh_ms = 2000, columns = ["port", "alias", "speed", "state"],
    banner = "" },
relay.enabled = true,
relay.peers = [
    { unit = "bridge-08", address = "192.0.2.18" },
    { unit = "bridge-09", address = "192.0.2.19" }
],
relay.last_error,
saved.time = 1763705000, saved.by = "admin", saved.generation = 0X2A
