network.management.address6 = "2001:db8::27",
ports.fc3.fabric.zone = "remote",
roles.auditor = { read = true, write = false, firmware = false, users = false }
