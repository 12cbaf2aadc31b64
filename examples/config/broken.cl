unit.name = "bridge-07",
ports = {
    fc1 = { number = 1, enabled = true },
    fc2 = { number = 2, enabled = true
},
users = [
    { name = "admin", role = "administrator" }
]
