unit.location = "Rack 14, slot 2",
unit.standby = true,
network = {
    management = { address = "192.0.2.27", vlan = 107 },
    syslog.level = 6
},
ports.fc4 = { enabled = true, alias = "host side C" },
maps.m3.online = true
