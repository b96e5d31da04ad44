const [test, assert] = [require('node:test'), require('node:assert')];
const { Luci, record } = require('./luci.js');
const cells = (luci) => [...luci.node.querySelectorAll('tr:not(.table-titles)')].map((row) =>
	[...row.querySelectorAll('td')].map((td) => [...td.querySelectorAll('*')].filter((e) =>
		e.children.length == 0 && e.textContent).map((e) => e.textContent).join('|')));
const banner = (luci) => ['className', 'textContent'].map((of) => luci.node.querySelector('[role=status]')[of]).join();
const isShown = (luci, text) => [...luci.node.querySelectorAll('p, div')].some((e) =>
	e.textContent.startsWith(text) && !e.classList.contains('hidden'));
const opened = async (name, change = () => {}, isWritable = true) => {
	const luci = new Luci(record('router'), isWritable);
	change(luci.answers);
	await luci.open(name);
	return luci;
};

test('status shows the lines as the router tells them', async () => {
	const luci = await opened('status', (answers) =>
		answers['dnsproxy.statistics.get'].result[1].lines.reverse()[2].ipv4.servers[0].sent *= 2);
	assert.deepStrictEqual(cells(luci).map((row) => [row[0], row[1], row[4]]), [
		['wan1|wan1', 'on', '10.0.1.53: 50 %, 0.3 ms|10.0.1.54: 100 %, 0.3 ms|fd00:a:1::53: –, –'],
		['wan2|wan2', 'off|set by hand', '10.0.2.53: 100 %, 0.1 ms'],
		['wan3|wan3', 'on', '10.0.3.53: 100 %, 0.2 ms|10.0.3.54: 100 %, 0.2 ms']
	]);
	assert.match(cells(luci)[0][3], /95 % within 1 ms$/);
});

test('a line that is off says by whom', async () => {
	for (const [state, dead, by] of [
		['on', [], 'set by hand'], ['off', [], 'by mwan3'], ['off', [{ name: 'wan2' }], 'found dead by dnsproxyctl watch'],
		['', [], 'the network is down']
	]) {
		const luci = await opened('status', (answers) => {
			answers['file.read'].result[1].data = `wan2 wan2 ${state}`;
			answers['file.list'].result = [0, { entries: dead }];
		});
		assert.strictEqual(cells(luci)[1][1], 'off|' + by);
	}
});

test('rate is what was sent since the last refresh, and a gap where the counter began anew', async () => {
	const luci = await opened('status');
	for (const [added, rate] of [[50, '10.0 per second'], [-100, '–'], [5, '1.0 per second']]) {
		luci.answers['dnsproxy.statistics.get'].result[1].lines[0].ipv4.sent += added;
		await luci.refresh();
		assert.strictEqual(cells(luci)[0][2].split('|').pop(), rate);
	}
	assert.strictEqual(luci.node.querySelectorAll('path')[1].getAttribute('d').match(/M/g).length, 2);
});

test('a daemon that stops shows at the next refresh, with the remedy; one that starts, too', async () => {
	const luci = await opened('status');
	luci.add(record('stopped'));
	await luci.refresh();
	assert.match(banner(luci), /error.*dnsproxyd is not running. → start it: \/etc\/init.d\/dnsproxyd start/);
	assert.deepStrictEqual(cells(luci), []);
	luci.add(record('router'));
	await luci.refresh();
	assert.match(banner(luci), /success/);
});

test('without statistics numbers are not known, and the daemon dumps once a minute at most', async () => {
	const luci = await opened('status', (answers) => delete answers['dnsproxy.statistics.get']);
	assert.ok(isShown(luci, 'This dnsproxyd has no numbers'));
	assert.strictEqual(cells(luci)[1][2], 'Queries of the last five minutes, at last –|–');
	for (let second = 5; second <= 120; second += 5) {
		await luci.refresh();
		await luci.page.handleAskAll();
		if (second == 40)
			delete luci.answers['dnsproxy.get_state'];
	}
	assert.strictEqual(luci.calls.filter((call) => ['status', 'check'].includes(call.name)).length, 3);
});

test('a router that is silent is told while it lasts, beside what was last known', async () => {
	const luci = await opened('status');
	luci.answers['dnsproxy.get_state'] = null;
	await luci.refresh();
	assert.ok(isShown(luci, 'The router does not answer') && cells(luci).length == 3);
	luci.add(record('router'));
	await luci.refresh();
	assert.ok(!isShown(luci, 'The router does not answer'));
});

test('buttons change a line, and are for those who may', async () => {
	const luci = await opened('status', (answers) => answers['dnsproxy.update_if'] = { result: [0] });
	luci.node.querySelector('td button').click();
	luci.window.document.querySelector('.important').click();
	assert.deepStrictEqual(luci.calls.pop().params, { name: 'wan1', dev: 'wan1', status: 'off' });
	assert.strictEqual((await opened('status', undefined, false)).node.querySelector('button'), null);
});

test('hostile names are text', async () => {
	const evil = '<script>alert(1)</script>';
	const luci = await opened('status', (answers) => Object.keys(answers).forEach((name) => {
		answers[name] = JSON.parse(JSON.stringify(answers[name]).replace(/wan1|(?<=_if":")(guest|wan3)/g, evil));
	}));
	assert.ok(cells(luci).some((row) => row[0].includes(evil)));
	assert.strictEqual(luci.node.querySelector('script'), null);
	await luci.open('rules');
	const shown = ['service_if', '_mode'].map((name) => luci.options[name].textvalue('guest'));
	assert.ok(shown.every((cell) => cell.textContent.includes(evil) && cell.querySelector('script') == null));
});

test('a saved rule gives these changes and no others', async () => {
	for (const [id, values, changes] of [
		['lan', { _mode: 'turn' }, []],
		['lan', { _mode: 'all' }, [['lan', 'out_type', 'polling']]],
		['lan', { _mode: 'forced', out_if: 'wan2' }, [['lan', 'force_if', 'on'], ['lan', 'out_if', 'wan2']]],
		['guest', { _mode: 'forced', out_if: 'wan3' }, []],
		['guest', { _mode: 'turn', out_if: 'wan3' }, [['guest', 'force_if', null], ['guest', 'out_if', null]]]
	]) {
		const luci = await opened('rules');
		luci.save(id, { service_if: id, ...values });
		assert.deepStrictEqual(luci.changes, changes, JSON.stringify([id, values]));
	}
});

test('a rule is warned of', async () => {
	const zone = { '.type': 'zone', name: 'guests', network: ['guest'], input: 'REJECT' };
	const rule = { '.type': 'rule', src: 'guests', proto: 'udp', dest_port: '53', target: 'ACCEPT' };
	for (const [change, firewall, expected] of [
		[{}, null, ''], [{ service_if: 'lan' }, null, 'The rule "lan" serves the same device'],
		[{ service_if: 'attic' }, null, 'no network "attic"'], [{ out_if: 'wan9' }, null, 'no line "wan9"'],
		[{ out_if: 'lan' }, null, 'no line on "lan" at present'], [{}, { zone }, 'The firewall refuses'],
		[{}, { zone, rule: { ...rule, dest_port: '50-53' } }, ''], [{}, { zone, rule: { ...rule, proto: 'tcp' } }, 'The firewall'],
		[{}, { zone, rule: { ...rule, dest_port: '50-52' } }, 'The firewall'], [{}, { zone: { ...zone, input: 'ACCEPT' } }, ''],
		[{}, { zone, rule: { ...rule, src: 'lan' } }, 'The firewall refuses']
	]) {
		const luci = await opened('rules', (answers) => {
			Object.assign(answers['dns.get'].result[1].values.guest, change);
			answers['firewall.get'].result = firewall ? [0, { values: firewall }] : [4];
		});
		const told = luci.options._warnings.textvalue('guest').textContent;
		assert.ok(expected ? told.includes(expected) : told == '–', JSON.stringify([change, firewall, told]));
	}
});
