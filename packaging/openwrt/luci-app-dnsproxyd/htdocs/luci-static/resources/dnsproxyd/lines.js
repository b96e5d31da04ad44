'use strict';
'require baseclass';
'require fs';
'require rpc';

/* Collects all that the router knows of the daemon and its lines. The bus is asked at each refresh. The program
 * dnsproxyctl is asked once a minute, and when the daemon comes or goes: without the bus object dnsproxy.statistics
 * it makes the daemon dump its tables, so it then runs once a minute at most. */

const PROGRAM = '/usr/bin/dnsproxyctl';
const PROGRAM_INTERVAL_MS = 60000;

const getStatistics = rpc.declare({
	object: 'dnsproxy.statistics',
	method: 'get',
	reject: true
});

const getState = rpc.declare({
	object: 'dnsproxy',
	method: 'get_state',
	reject: true
});

const updateIf = rpc.declare({
	object: 'dnsproxy',
	method: 'update_if',
	params: [ 'name', 'dev', 'status' ],
	reject: true
});

/* An object that the bus does not have is null; a router that does not answer stays an error. */
function orNull(promise) {
	return promise.catch(function(err) {
		if (err.name != 'RPCError')
			throw err;

		return null;
	});
}

/* Rows "NAME DEVICE on|off SERVER..." of the package's file, by device. */
function parseLinesFile(text) {
	const rows = {};

	text.split('\n').forEach(function(row) {
		const words = row.trim().split(/\s+/);

		if (words.length >= 3)
			rows[words[1]] = { name: words[0], state: words[2] };
	});

	return rows;
}

function run(command) {
	return fs.exec(PROGRAM, [ command, '-j' ]).then(function(result) {
		return JSON.parse(result.stdout);
	}).catch(function() {
		return null;
	});
}

/* Servers of one family as the bus object tells them; times are in microseconds. */
function countedServers(family) {
	return family.servers.filter(function(server) {
		return server.address != '';
	}).map(function(server) {
		return {
			address: server.address,
			share: server.sent > 0 ? Math.min(server.replies / server.sent, 1) : null,
			replies: server.replies,
			mean: server.replies > 0 ? server.time_us.mean : null
		};
	});
}

function sumHistograms(line) {
	const sum = [];

	line.ipv4.servers.concat(line.ipv6.servers).forEach(function(server) {
		server.time_us.histogram.forEach(function(times, step) {
			sum[step] = (sum[step] || 0) + times;
		});
	});

	return sum;
}

/* Servers as dnsproxyctl tells them: places, null for an empty one. */
function toldServers(line) {
	const servers = [];

	[ 'ipv4', 'ipv6' ].forEach(function(family) {
		(line[family] || []).forEach(function(address, slot) {
			if (address != null)
				servers.push({ address: address, share: line.answered ? line.answered[family][slot] : null });
		});
	});

	return servers;
}

/* The reason of a state that is not what the line's network suggests; null where the router does not tell. */
function decider(device, state, file, dead) {
	if (file == null)
		return null;

	const row = file[device];

	if (state == 'on')
		return (row && row.state == 'off') ? 'hand' : null;

	if (dead.indexOf(device) >= 0)
		return 'watch';

	if (row == null)
		return 'network';

	return row.state == 'on' ? 'hand' : 'mwan3';
}

return baseclass.extend({
	__init__: function() {
		this.status = null;
		this.findings = [];
		this.reasons = null;
		this.wasRunning = null;
		this.programAt = -Infinity;
		this.dumpAt = -Infinity;
	},

	/* Whether the program may run without a second dump within a minute. */
	mayRun: function(statistics, now) {
		return statistics != null || now - this.dumpAt >= PROGRAM_INTERVAL_MS;
	},

	runStatus: function(statistics, now) {
		return run('status').then(L.bind(function(status) {
			this.status = status;
			this.programAt = now;

			if (statistics == null && status && status.lines)
				this.dumpAt = now;

			return status;
		}, this));
	},

	/* Asks all servers of all lines. Null: it must not run yet, or did not work. */
	runCheck: function(statistics, now) {
		if (!this.mayRun(statistics, now))
			return Promise.resolve(null);

		if (statistics == null && !(this.status && this.status.lines == null))
			this.dumpAt = now;

		return run('check').then(function(check) {
			return check ? check.findings : null;
		});
	},

	updateProgram: function(statistics, running, now) {
		const changed = running !== this.wasRunning;
		const isDue = changed || now - this.programAt >= PROGRAM_INTERVAL_MS;

		if (!isDue || !this.mayRun(statistics, now))
			return Promise.resolve();

		if (changed)
			this.findings = [];

		this.wasRunning = running;

		return this.runStatus(statistics, now).then(L.bind(function(status) {
			if (status && status.serving === false)
				this.askReasons(statistics, now);
			else
				this.reasons = null;
		}, this));
	},

	/* Takes seconds where servers are silent, so a refresh does not wait for it. */
	askReasons: function(statistics, now) {
		const asked = this.runCheck(statistics, now).then(L.bind(function(findings) {
			if (this.reasons === asked) {
				this.findings = findings || [];
				this.reasons = null;
			}

			return findings || [];
		}, this));

		this.reasons = asked;
	},

	/* now: milliseconds of a clock that only goes forward. */
	collect: function(now) {
		return Promise.all([
			orNull(getStatistics()),
			orNull(getState()),
			fs.read('/var/run/dnsproxyd/lines').catch(function() { return null; }),
			fs.list('/var/run/dnsproxyd/dead').catch(function() { return []; })
		]).then(L.bind(function(answers) {
			const statistics = answers[0];
			const running = statistics != null || answers[1] != null;

			this.statistics = statistics;

			return this.updateProgram(statistics, running, now).then(L.bind(function() {
				return this.merge(statistics, answers[1], answers[2], answers[3]);
			}, this));
		}, this));
	},

	merge: function(statistics, states, fileText, dead) {
		const file = fileText != null ? parseLinesFile(fileText) : null;
		const running = statistics != null || states != null;
		const isTold = this.status != null && this.wasRunning === running;
		const deadDevices = dead.map(function(entry) { return entry.name; });
		const told = {};
		let lines = [];

		((this.status && this.status.lines) || []).forEach(function(line) {
			told[line.device] = line;
		});

		if (statistics != null)
			lines = statistics.lines.map(function(line) {
				return {
					device: line.dev,
					state: line.status,
					servers: countedServers(line.ipv4).concat(countedServers(line.ipv6)),
					sent: line.ipv4.sent + line.ipv6.sent,
					histogram: sumHistograms(line)
				};
			});
		else if (states != null)
			lines = Object.keys(states).map(function(device) {
				return {
					device: device,
					state: states[device].status,
					servers: told[device] ? toldServers(told[device]) : null,
					sent: null,
					histogram: null
				};
			});
		else
			lines = Object.keys(told).map(function(device) {
				return {
					device: device,
					state: told[device].state,
					servers: toldServers(told[device]),
					sent: null,
					histogram: null
				};
			});

		lines.forEach(function(line) {
			const row = file && file[line.device];

			line.name = (row && row.name) || (told[line.device] && told[line.device].interface) || line.device;
			line.by = decider(line.device, line.state, file, deadDevices);
		});

		/* The daemon's order changes with each query, a row keeps its place. */
		lines.sort(function(a, b) {
			return L.naturalCompare(a.name, b.name) || L.naturalCompare(a.device, b.device);
		});

		return {
			running: running,
			onBus: states != null,
			hasStatistics: statistics != null,
			uptime: statistics ? statistics.uptime : null,
			queries: statistics ? [ statistics.ipv4, statistics.ipv6 ] : null,
			serving: isTold ? this.status.serving : (running ? null : false),
			port53: isTold ? this.status.port53 : null,
			findings: this.findings,
			reasons: this.reasons, /* a promise of findings, while they are asked for */
			lines: lines
		};
	},

	/* state: "on" or "off". */
	mark: function(line, state) {
		return updateIf(line.name, line.device, state);
	},

	askAll: function(now) {
		return this.runCheck(this.statistics, now);
	}
});
