maps = {
    m12 = {
        host = { port = "fc4", wwpn = 0x100000005EA1B2C5, lun = 0 },
        target = { port = "scsi2", id = 10, lun = 0 },
        access = "shared", online = true
    },
    m5 = {
        host = { port = "fc2", wwpn = 0x100000005EA1B2C4, lun = 2 },
        target = { port = "scsi1", id = 3, lun = 0 },
        access = "exclusive", online = true
    }
}
