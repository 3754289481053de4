/** Chinese. */
import type { Texts } from './en'

const speakers = (n: number): string => `${n.toLocaleString('zh')} 个音箱`

export const zh: Texts = {
  language: '中文',
  locale: 'zh-CN',
  nav: {
    main: '主菜单', menu: '菜单', skip: '跳到内容', overview: '总览', speakers: '音箱', groups: '分组', announce: '广播', sounds: '音频', schedule: '日程', journal: '日志', accounts: '账户', system: '系统',
    account: '账户', logOut: '退出登录', theme: '颜色', language: '语言', broadcast: '广播', speaker: '音箱', auto: '跟随系统', light: '浅色', dark: '深色',
  },
  common: {
    save: '保存', cancel: '取消', close: '关闭', remove: '删除', add: '添加', edit: '编辑', undo: '撤销', name: '名称', search: '搜索', all: '全部', none: '无', loading: '正在加载…', more: '更多', retry: '重试', optional: '可不填',
    from: '从', until: '到', state: '状态', kind: '类型', time: '时间', reason: '原因', created: '创建时间', never: '从不', yes: '是', no: '否', download: '下载 CSV', nothing: '这里没有内容。', actions: '操作', unknown: '未知',
    working: '正在处理…', speakers, seconds: (n) => `${n} 秒`, chars: (n) => `${n} 个字符`,
  },
  problems: { noAnswer: '服务没有应答', forbidden: '您的角色不允许此操作', later: (s) => `服务请您在 ${s} 秒后重试`, status: (n) => `服务返回 ${n}` },
  connection: { lost: '与服务的连接已断开。所显示的内容可能已过时；正在重试…', now: '立即重试', live: '已连接', starting: '正在连接…', back: '已重新连接。' },
  login: {
    title: '登录', username: '账户', password: '密码', submit: '登录', failed: '无法登录', wrong: '账户与密码不匹配。', ended: '服务已将您退出，请重新登录。', wait: (s) => `尝试次数过多，请在 ${s} 秒后重试。`,
  },
  stop: {
    button: '全部停止', title: '停止所有正在播放的内容？', text: (n) => `将停止 ${n} 个广播，包括仍在等待的音箱。它们不会自行继续。`, none: '本页没有发现正在播放的内容。服务中正在播放的一切都会被停止。', yes: '立即停止', what: '全部停止',
    stopped: (n) => `已停止 ${n} 个广播。`, failed: (n) => `有 ${n} 个广播未能停止。`, nothing: '没有正在播放的内容。',
  },
  overview: {
    online: '在线', playing: '播放中', flaky: '不稳定', offline: '离线', of: (n) => `共 ${speakers(n)}`, now: '正在播放', nothingPlays: '没有正在播放的内容。', bells: '接下来的铃声', noBells: '未来七天没有铃声。', wrong: '今天的异常', nothingWrong: '目前没有。', empty: '还没有音箱。', addFirst: '添加音箱',
  },
  states: {
    online: '在线', offline: '离线', idle: '空闲', playing: '播放中', live: '直播', ok: '正常', flaky: '不稳定', silent: '无响应', disabled: '已停用', waiting: '等待', sent: '已发送', started: '播放中', completed: '已完成', stopped: '已停止', overruled: '被取代', lost: '已断开', refused: '被拒绝', done: '完成', failed: '失败',
    played: '已播放', late: '迟到', skipped: '已跳过', gone: '离开', back: '恢复', up: '正常', down: '中断',
  },
  kinds: { bell: '铃声', announcement: '广播', live: '直播', alarm: '警报', direct: '直接播放', speaker: '音箱', service: '服务', link: '连接' },
  speakers: {
    title: '音箱', searchHint: '名称或序列号', group: '分组', allGroups: '所有分组', allStates: '所有状态', state: '状态', matching: (n, all) => (n === all ? speakers(n) : `${n} / ${speakers(all)}`), selected: (n) => `已选 ${n} 个`, selectAll: (n) => `选择全部 ${n} 个`, clear: '清除选择',
    volume: '音量', playing: '播放内容', health: '健康', address: '地址', lastSeen: '最后出现', battery: '电池', serial: '序列号', firmware: '固件', node: '节点', since: '自', groups: '分组', enabled: '启用', add: '添加音箱', serialHint: '32 位十六进制数字，印在音箱上', select: (name) => `选择 ${name}`,
    setVolume: '设置音量', announce: '广播', stop: '停止', toGroup: '加入分组', noneMatch: '没有符合的音箱。', volumeOf: (n) => `${speakers(n)}的音量`, volumeSet: (n, all) => (n === all ? `已设置 ${speakers(n)}的音量。` : `已设置 ${n} / ${speakers(all)}的音量；其余没有应答。`), setVolumeOf: (n) => `设置 ${speakers(n)}的音量`, volumeRange: '音量，1 到 25',
    stopTitle: '停止这些音箱的播放？', stopText: (n, s) => `${n} 个广播将在其全部 ${speakers(s)}上停止，不仅是所选的。`, stopNothing: '所选音箱都没有可停止的播放。', stopOf: '停止播放', grouped: (n, name) => `${speakers(n)}已加入“${name}”。`, groupThem: (n) => `将 ${speakers(n)}加入分组`, newGroup: '新分组', groupName: '新分组的名称',
    removeTitle: (name) => `删除“${name}”？`, removeText: '该音箱将从分组和日程中移除，重新添加之前不能通过本服务播放。', removed: (name) => `“${name}”已删除。`, added: (name) => `“${name}”已添加。`, renamed: (name) => `已改名为“${name}”。`, addWhat: '添加音箱', renameWhat: (name) => `重命名“${name}”`, removeWhat: (name) => `删除“${name}”`, enableWhat: (name) => `更改“${name}”`,
    enable: '允许播放', disable: '保持静音', disabledNote: '保持静音：在重新允许之前不会播放任何内容。', history: '最近七天的记录', noHistory: '最近七天没有记录。', missing: '没有这个音箱。', back: '所有音箱', keys: '方向键移动，空格选择，Shift 扩展，Ctrl+A 选择全部符合的，回车打开。', sortBy: (c) => `按${c}排序`, all: '选择全部符合的',
    nowSilent: (name) => `“${name}”将保持静音。`, nowEnabled: (name) => `“${name}”可以重新播放。`, playsNow: '正在播放',
  },
  groups: {
    title: '分组', tree: '分组及其内容', add: '新分组', members: '成员', direct: '直属音箱', nested: '所含分组', addSpeakers: '添加音箱', addGroups: '添加分组', empty: '还没有分组。分组便于向一个区域、楼层或建筑广播。', pick: '请选择一个分组。', removeTitle: (name) => `删除分组“${name}”？`, removeText: '其中的音箱会保留。日程和广播将不能再使用它。',
    saved: (name) => `“${name}”已保存。`, removed: (name) => `“${name}”已删除。`, saveWhat: (name) => `保存“${name}”`, removeWhat: (name) => `删除“${name}”`, addWhat: '新建分组', takeOut: (name) => `移出“${name}”`, takenOut: (name) => `“${name}”已移出。`, contains: (n) => `含 ${speakers(n)}`, show: '显示其音箱', expand: (name) => `展开“${name}”`,
  },
  targets: { title: '目标', all: '所有音箱', search: '搜索分组和音箱', groups: '分组', speakers: '音箱', chosen: (n) => `已选 ${speakers(n)}`, none: '尚未选择', first: (n) => `仅显示前 ${n} 个；其余请搜索。`, clear: '清除', single: '搜索单个音箱。' },
  announce: {
    title: '广播', what: '内容', text: '朗读文字', file: '文件', sound: '已存音频', url: '地址', textHint: '请注意…', voice: '声音', standard: '标准', speed: '语速', speeds: { slow: '慢', usual: '正常', fast: '快' }, chooseFile: '音频文件', chooseSound: '音频', urlHint: 'http://…', how: '方式', chime: '前置提示音', noChime: '无提示音', volume: '音量', asIs: '保持各音箱音量', priority: '优先级',
    levels: { background: '背景', normal: '普通', urgent: '紧急', emergency: '应急' }, busy: '音箱忙时', interrupt: '打断', queue: '等待', skip: '跳过', resume: '被打断的内容', none: '不再继续', start: '重新开始', position: '从原处继续', repeat: '次数', name: '日志中的名称', start_: (n) => `向 ${speakers(n)}广播`, what_: '广播', uploading: '正在保存文件…',
    noTarget: '请选择收听者。', noContent: '请说明播放内容。', defaultName: '广播', again: '再做一次广播', more: '更多设置', waitAtMost: '最多等待（秒）',
  },
  broadcast: {
    receipt: '回执', stop: '停止', repeat: '再次播放', repeatWhat: '重复', stopWhat: (name) => `停止“${name}”`, csv: '下载 CSV', allStates: '所有状态', started: '开始', ended: '结束', late: '迟到', origin: '来源', speaker: '音箱', by: '被取代于', missing: '没有这个广播。', heard: (n, all) => `${n} / ${speakers(all)}正在或已经播放`, priority: '优先级', none: '没有处于此状态的音箱。', due: '应播时间', live: '播放期间数字会变化。',
  },
  sounds: { title: '音频', add: '保存文件', speak: '保存朗读文字', empty: '还没有音频。', length: '时长', size: '大小', listen: '试听', removeTitle: (name) => `删除“${name}”？`, removeText: '文件将被永久删除。', removed: (name) => `“${name}”已删除。`, stored: (name) => `“${name}”已保存。`, storeWhat: (name) => `保存“${name}”`, removeWhat: (name) => `删除“${name}”`, renameWhat: (name) => `重命名“${name}”`, rename: '重命名' },
  schedule: {
    title: '日程', week: '周视图', calendars: '日历', plans: '方案', day: '当日铃声', plan: '方案', allPlans: '所有方案', noPlan: '无方案', add: '新铃声', copyDay: '复制一天', days: ['星期一', '星期二', '星期三', '星期四', '星期五', '星期六', '星期日'], shortDays: ['周一', '周二', '周三', '周四', '周五', '周六', '周日'], hint: '将铃声拖到其他时间或日期。键盘：方向键移动，回车打开。',
    movedTo: (name, time, days) => `“${name}”现在于 ${time} 响铃，${days}。`, moveWhat: (name) => `移动“${name}”`, edit: '铃声', time: '时间', daysOf: '日期', from: '起始日', until: '截止日', calendar: '日历', noCalendar: '无日历', sounds: '音频', repeat: '次数', seconds: '多少秒后结束', volume: '音量', priority: '优先级', missed: '未能准时响铃时', ring: '补响', skip: '跳过', within: '最多迟到（秒）', enabled: '启用',
    saved: (name) => `“${name}”已保存。`, saveWhat: (name) => `保存“${name}”`, removeTitle: (name) => `删除“${name}”？`, removeText: '它正在播放的内容会停止。', removed: (name) => `“${name}”已删除。`, removeWhat: (name) => `删除“${name}”`, startNow: '立即响铃', stopNow: '停止', startWhat: (name) => `响铃“${name}”`, stopWhat: (name) => `停止“${name}”`, started: (name) => `“${name}”正在响铃。`, stopped: (name) => `“${name}”已停止。`,
    copyFrom: '将此日的铃声', copyTo: '也用于', replace: '并取消那些日子的其他铃声', copy: '复制', copied: (n) => `已更改 ${n} 个铃声。`, copyWhat: '复制一天', nothingToCopy: '无需更改：那些日子已有这些铃声。', none: '还没有铃声。', noSounds: '请先在“音频”页保存音频。', moved: '已移回。',
    newPlan: '新方案', exceptional: '仅在日历条目指定的日子', planRemove: (name) => `删除方案“${name}”？`, planText: '其铃声会保留，但不再属于方案。', noPlans: '还没有方案。方案是一组铃声，例如“短日”。', newCalendar: '新日历', calendarRemove: (name) => `删除日历“${name}”？`, calendarText: '其条目也会删除。', noCalendars: '还没有日历。日历说明哪些日子静音或使用其他方案。', entries: '条目', newEntry: '新条目', silent: '静音', rings: '响铃', entryPlan: '这些日子使用', silence: '无（静音）',
    import: '导入 .ics', export: '导出 .ics', importWhat: '导入日历', exportWhat: '导出日历', imported: (a, c, r) => `新增 ${a}，更改 ${c}，删除 ${r}。`, ignored: (n) => `${n} 个事件被忽略：`, noEntries: '还没有条目。', entryRemove: (name) => `删除“${name}”？`, entryText: '这些日子将恢复照常响铃。', date: '日期', nothingRings: '这一天没有铃声。', doesNotRing: '不响铃',
    daysText: (days, names) => (days.length === 7 ? '每天' : days.map((day) => names[day - 1]).join('、')),
  },
  journal: { title: '日志', what: '读取日志', empty: '所选范围没有记录。', late: (s) => `迟到 ${s} 秒`, csvWhat: '下载日志', newer: (n) => `${n} 条新记录`, end: '已全部显示。' },
  accounts: {
    title: '账户', list: '账户', tokens: '令牌', grants: '授权', audit: '审计', mine: '我的账户', add: '新账户', username: '账户', role: '角色', admin: '管理员', owner: '所有者', operator: '操作员', viewer: '查看者', password: '密码', passwordHint: '至少 8 个字符', saved: (name) => `“${name}”已保存。`, saveWhat: (name) => `保存“${name}”`,
    removeTitle: (name) => `删除账户“${name}”？`, removeText: '其音箱、分组、音频和日程也会删除。', removed: (name) => `“${name}”已删除。`, removeWhat: (name) => `删除“${name}”`, tokenAdd: '新令牌', tokenFor: '用于哪个程序', expires: '到期', tokenOnce: '令牌只显示一次，请立即复制。', tokenRemove: (name) => `作废令牌“${name}”？`, tokenText: '使用它的程序将无法登录。', tokenWhat: '创建令牌', noTokens: '没有程序令牌。',
    grantAdd: '新授权', group: '分组', noGrants: '没有其他人可以查看或使用您的分组。', grantWhat: '授予角色', grantRemove: '收回此角色？', grantText: (account, group) => `${account} 将不能再由此看到“${group}”。`, old: '当前密码', fresh: '新密码', change: '更改密码', changed: '密码已更改；其他使用者已被退出。', changeWhat: '更改密码', at: '时间', action: '操作', object: '对象', address: '来源', detail: '详情', who: '账户', myName: '我的名称', renameWhat: '更改名称', copy: '复制', copied: '已复制。', master: '创建者',
  },
  system: { title: '系统', what: '读取系统状态', connection: '本页面', events: '由事件通知', polling: '每隔几秒查询', lastNews: '最近更新' },
}
